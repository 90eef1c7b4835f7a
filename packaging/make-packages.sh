#!/usr/bin/env bash
# make-packages.sh JOBS: builds the Debian packages for the architectures of cmake/targets.list in
# build-packages, checks them, and lists their SHA-256 sums in SHA256SUMS.
#
# Two builds of the same commit give the same bytes: every file has the time of the commit, or
# SOURCE_DATE_EPOCH if it is set.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly jobs=$1 output=$PWD/build-packages
native=$(dpkg --print-architecture)

# A source archive has no commit, so the time is taken from the changelog.
sourceTime() {
    git log -1 --format=%ct 2>/dev/null ||
        dpkg-parsechangelog --file packaging/debian/changelog --show-field Timestamp
}

# makePackage PRESET BUILD
makePackage() {
    cmake --preset "$1"
    cmake --build --preset "$1" -j "$jobs"
    (cd "$2" && cpack)
}

makeCrossPackage() {
    packaging/make-sysroot.sh "$1" "build-$1/sysroot"
    # The database of the sysroot maps each library of the target to its package.
    ARCH=$1 DPKG_ADMINDIR=$PWD/build-$1/sysroot/var/lib/dpkg makePackage cross "build-$1"
}

# The packages that a .deb depends on, without their versions.
dependencies() { dpkg-deb --field "$1" Depends | tr , '\n' | sed 's/(.*)//; s/ //g' | sort; }

SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(sourceTime)}
export SOURCE_DATE_EPOCH
umask 022 # CPack sets this mode on directories
rm -rf "$output"
makePackage release build
mapfile -t architectures < <(awk '$6 == "package" { print $1 }' cmake/targets.list)
for architecture in "${architectures[@]}"; do
    [[ $architecture == "$native" ]] || makeCrossPackage "$architecture"
done
rm -r "$output/_CPack_Packages"

version=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
if [[ ! -e $output/lora-veyra-server_${version}_$native.deb ]]; then
    echo "The versions of the changelog and of the program differ" >&2
    exit 1
fi

# dpkg-shlibdeps leaves out the package of a library that it does not find, without an error.
expected=$(dependencies "$output"/*_"$native".deb)
for package in "$output"/*.deb; do
    if [[ $(dependencies "$package") != "$expected" ]]; then
        echo "$package and the package for this machine depend on different packages" >&2
        exit 1
    fi
done

# By default, lintian reports missing hardening only as information.
lintian --fail-on error,warning --allow-root "$output"/*.deb
lintian --allow-root --fail-on info --tags \
    hardening-no-pie,hardening-no-relro,hardening-no-bindnow,hardening-no-fortify-functions \
    "$output"/*.deb

cd "$output"
stat -c '%n: %s bytes' ./*.deb
{
    echo "# SOURCE_DATE_EPOCH=$SOURCE_DATE_EPOCH"
    sha256sum -- *.deb
} | tee SHA256SUMS
