#!/usr/bin/env bash
# install-dependencies.sh GROUP|ARCHITECTURE...: installs the missing Debian packages that groups of
# make targets need. An architecture of cmake/targets.list means its cross compiler. Does nothing if
# no package is missing.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

# cross_compilers FIELD VALUE: the cross compilers of the lines of targets.list whose FIELD is
# VALUE. The machine's own architecture needs none.
cross_compilers() {
    awk -v native="$(dpkg --print-architecture)" -v field="$1" -v value="$2" \
        '/^[^#]/ && $field == value && $1 != native { sub("_", "-", $2); print "g++-" $2 }' \
        cmake/targets.list
}

packages_of() {
    case "$1" in
        build) echo g++ cmake make pkg-config libjsoncpp-dev libcurl4-openssl-dev libmosquittopp-dev libssl-dev ;;
        test) echo libgtest-dev python3 python3-paho-mqtt iproute2 mosquitto mosquitto-clients openssl util-linux ;;
        cross) echo mmdebstrap qemu-user-static ;;
        package) echo diffoscope-minimal dpkg-dev file iproute2 lintian && cross_compilers 6 package ;;
        lint) echo clang clang-format clang-tidy flake8 libc++-dev musl-dev mypy shellcheck ;;
        bench) echo nginx valgrind python3-matplotlib ;;
        fuzz) echo clang libclang-rt-dev ;;
        *)
            grep -q "^$1 " cmake/targets.list || { echo "unknown: $1" >&2 && return 1; }
            cross_compilers 1 "$1"
            ;;
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
    echo "This is not a Debian system. Please install the counterparts of: ${missing[*]}" >&2
    exit 1
fi
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
