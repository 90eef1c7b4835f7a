#!/usr/bin/env bash
# with-ca.sh CA_FILE COMMAND [ARG...]: runs COMMAND with a copy of CA_FILE at the fixed path where
# the daemon looks for the authority of the cloud's certificate.
#
# Only COMMAND sees it: it runs in a mount namespace of its own, so that nobody has to be root and
# the machine's certificates stay as they are. COMMAND takes over the process, with its id and its
# open files. Nothing is left behind: what is made here lives in memory and goes with the namespace.
# The mounts stay out of the machine-wide mount table, which outlives the namespace.
set -euo pipefail

readonly fixedPath=/etc/ssl/certs/DigiCert_Global_Root_CA.pem

# mirrorFolder FIRST: fills the current folder with what its .covered holds, all but FIRST. Links
# are copied, since they may be relative; folders are mounted, so that links inside them hold too.
mirrorFolder() {
    local folder entries=(find .covered -mindepth 1 -maxdepth 1 ! -name "$1")
    "${entries[@]}" -type l -exec cp --no-dereference --target-directory=. {} +
    "${entries[@]}" ! -type l ! -type d -exec ln --symbolic --target-directory=. {} +
    while IFS= read -r -d '' folder; do
        mkdir "${folder##*/}"
        mount --no-mtab --rbind "$folder" "${folder##*/}"
    done < <("${entries[@]}" -type d -print0)
}

# showAuthority TEXT: takes the deepest folder that exists on the way to the fixed path, and covers
# it with a view of itself in which the rest of the way is there too, whatever was missing or
# dangling. The view is built over /tmp, which shows again as soon as the view moves to its place.
showAuthority() {
    local folder rest
    folder=$(dirname "$fixedPath")
    until [[ -d $folder ]]; do folder=$(dirname "$folder"); done
    rest=${fixedPath#"$folder"/}
    folder=$(realpath "$folder")

    mount --no-mtab -t tmpfs -o mode=0755 view /tmp
    (
        cd /tmp
        mkdir .covered
        mount --no-mtab --rbind "$folder" .covered
        mirrorFolder "${rest%%/*}"
        mkdir -p "$(dirname "$rest")"
        printf '%s\n' "$1" >"$rest"
    )
    mount --no-mtab --move /tmp "$folder"
}

if [[ $# -lt 2 ]]; then
    echo "usage: with-ca.sh CA_FILE COMMAND [ARG...]" >&2
    exit 2
fi
if [[ $1 != --in-namespace ]]; then
    exec unshare --map-root-user --mount "$BASH" "$0" --in-namespace "$@"
fi
authority=$(<"$2") # read first: the file may well be below /tmp
showAuthority "$authority"
exec "${@:3}"
