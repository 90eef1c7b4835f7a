#!/usr/bin/env bash
# make-packages.sh JOBS: makes the Debian packages for this machine's architecture and for the
# gateways' in build-packages, and has lintian look at them.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly jobs=$1 output=$PWD/build-packages

# makePackage PRESET BUILD
makePackage() {
    cmake --preset "$1"
    cmake --build --preset "$1" -j "$jobs"
    (cd "$2" && cpack)
}

# The packages that a .deb depends on, without their versions.
dependencies() { dpkg-deb --field "$1" Depends | tr , '\n' | sed 's/(.*)//; s/ //g' | sort; }

rm -rf "$output"
makePackage release build
for architecture in armhf armel; do
    packaging/make-sysroot.sh "$architecture" "build-$architecture/sysroot"
    # Which package a library of the target is from is known to the sysroot's database.
    DPKG_ADMINDIR=$PWD/build-$architecture/sysroot/var/lib/dpkg \
        makePackage "$architecture" "build-$architecture"
done
rm -r "$output/_CPack_Packages"

version=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
if ! grep -q "\"lora-veyra-server $version\"" packaging/lora-veyra-server.8 ||
    [[ ! -e $output/lora-veyra-server_${version}_armhf.deb ]]; then
    echo "The changelog, the manual page and the program are of different versions" >&2
    exit 1
fi

# A library that dpkg-shlibdeps does not find is left out of the dependencies without a word.
native=$(dependencies "$output"/*_"$(dpkg --print-architecture)".deb)
for package in "$output"/*.deb; do
    if [[ $(dependencies "$package") != "$native" ]]; then
        echo "$package depends on other packages than the one for this machine" >&2
        exit 1
    fi
done

# The last few are mere information by default, and no matter of taste here.
lintian --fail-on error,warning --allow-root "$output"/*.deb
lintian --allow-root --fail-on info --tags \
    hardening-no-pie,hardening-no-relro,hardening-no-bindnow,hardening-no-fortify-functions \
    "$output"/*.deb
(cd "$output" && stat -c '%n: %s bytes' ./*.deb)
