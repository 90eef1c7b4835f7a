#!/usr/bin/env bash
# test-packages.sh [ARCHITECTURE]: tests installation, upgrade and removal of a package of
# build-packages, in a clean Debian root that is deleted afterwards. Without an argument, tests the
# package for this machine, and the package for armhf if the kernel can run armhf programs.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly cannotRun=75
native=$(dpkg --print-architecture)

if [[ $(id -u) -ne 0 ]]; then
    exec sudo "$PWD/packaging/test-packages.sh" "$@"
fi

if [[ $# -eq 0 ]]; then
    packaging/test-packages.sh "$native"
    status=0
    packaging/with-emulator.sh armhf packaging/test-packages.sh armhf || status=$?
    if [[ $status -eq $cannotRun ]]; then
        echo "test-package: armhf skipped: the kernel of this machine cannot run its programs"
        exit 0
    fi
    exit "$status"
fi

architecture=$1
package=$(realpath build-packages/lora-veyra-server_*_"$architecture".deb)
work=$(mktemp --directory --tmpdir lora-veyra-packages.XXXXXXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT

# The systemd of the root checks the unit. Once is enough, because all packages have the same unit
# file.
included=logrotate
[[ $architecture != "$native" ]] || included+=,systemd

# First the root gets all its packages from the network. Everything after that runs with the
# loopback interface only.
echo "Making a Debian root for $architecture"
# shellcheck disable=SC2016 # mmdebstrap's shell expands $1
packaging/debian-root.sh --quiet --variant=minbase --architectures="$architecture" \
    --skip=cleanup/apt,check/qemu --include="$included" \
    --customize-hook="cp '$package' \"\$1/package.deb\"" \
    --customize-hook='chroot "$1" apt-get -qq install --download-only --no-install-recommends \
        /package.deb' \
    "$work/root"
readonly alone=(unshare --mount --net --pid --fork --kill-child)
"${alone[@]}" packaging/test-package-sysv.sh "$work/root"
[[ $architecture == "$native" ]] || exit 0
status=0
"${alone[@]}" packaging/test-package-systemd.sh "$work/root" || status=$?
if [[ $status -eq $cannotRun ]]; then
    echo "test-package: systemd skipped: control groups (version 2) are not available here"
    exit 0
fi
exit "$status"
