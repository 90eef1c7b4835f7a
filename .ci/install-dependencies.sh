#!/usr/bin/env bash
# Installs what a group of make targets needs on Debian and is missing: install-dependencies.sh GROUP...
# Does nothing, and asks nobody, when all of it is there.
set -euo pipefail

packages_of() {
    case "$1" in
        build) echo g++ cmake make pkg-config libjsoncpp-dev libcurl4-openssl-dev libmosquittopp-dev libssl-dev ;;
        test) echo libgtest-dev python3 python3-paho-mqtt iproute2 mosquitto mosquitto-clients openssl util-linux ;;
        cross) echo mmdebstrap qemu-user-static g++-arm-linux-gnueabihf g++-arm-linux-gnueabi ;;
        package) echo dpkg-dev file iproute2 lintian ;;
        lint) echo clang-format clang-tidy flake8 mypy shellcheck ;;
        bench) echo nginx valgrind python3-matplotlib ;;
        fuzz) echo clang libclang-rt-dev ;;
        *) echo "unknown group of dependencies: $1" >&2; return 1 ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing=()
for group in "$@"; do
    packages=$(packages_of "$group")
    for package in $packages; do
        is_installed "$package" || missing+=("$package")
    done
done
[ ${#missing[@]} -gt 0 ] || exit 0

if ! command -v apt-get >/dev/null; then
    echo "This is no Debian system; please install the counterparts of: ${missing[*]}" >&2
    exit 1
fi
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
