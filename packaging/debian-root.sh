#!/usr/bin/env bash
# debian-root.sh OPTION... TARGET: runs mmdebstrap with the release and the mirror of this machine.
#
# Uses only the original release without its updates. Updates never change the interfaces of the
# libraries, so they are not necessary. Mirrors rarely have the same updates, so builds would differ.
set -euo pipefail

release=$(sed -n "s/^VERSION_CODENAME=//p" /etc/os-release)
if [[ $release != bookworm ]]; then
    echo "This command works only on Debian 12 (bookworm), not on \"$release\"." >&2
    exit 1
fi

debianSources() {
    # shellcheck disable=SC2016 # apt fills these in
    apt-get indextargets --format '$(ORIGIN) $(RELEASE) deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' | sed -n "s/^Debian $release //p" | sort -u
}

sources=$(debianSources)
if [[ -z $sources ]]; then # container images often have no package lists
    as_root=()
    [[ $(id -u) -eq 0 ]] || as_root=(sudo)
    "${as_root[@]}" apt-get update -q >&2
    sources=$(debianSources)
fi
if [[ -z $sources ]]; then
    echo "Failed to fetch the lists of Debian's packages" >&2
    exit 1
fi
mmdebstrap "${@:1:$#-1}" "$release" "${@: -1}" - <<<"$sources"
