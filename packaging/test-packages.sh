#!/usr/bin/env bash
# test-packages.sh: takes the packages of build-packages through their whole life, each in a clean
# Debian root of its own that is thrown away afterwards.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

if [[ $(id -u) -ne 0 ]]; then
    exec sudo "$PWD/packaging/test-packages.sh"
fi

work=$(mktemp --directory --tmpdir lora-veyra-packages.XXXXXXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT

# testPackage ARCHITECTURE: in a root that gets all its packages from the network first, and then has
# a network of its own, which consists of the loopback interface.
testPackage() {
    local package root=$work/$1
    package=$(realpath build-packages/lora-veyra-server_*_"$1".deb)
    echo "Making a Debian root for $1"
    # shellcheck disable=SC2016 # mmdebstrap's shell expands $1
    packaging/debian-root.sh --quiet --variant=minbase --architectures="$1" --skip=cleanup/apt \
        --include=logrotate,systemd \
        --customize-hook="cp '$package' \"\$1/package.deb\"" \
        --customize-hook='chroot "$1" apt-get -qq install --download-only --no-install-recommends \
            /package.deb' \
        "$root"
    unshare --mount --net --pid --fork --kill-child \
        packaging/test-package-life.sh "$root" "$PWD/build"
    rm -rf --one-file-system "$root"
}

testPackage "$(dpkg --print-architecture)"
