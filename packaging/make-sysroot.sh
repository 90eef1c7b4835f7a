#!/usr/bin/env bash
# make-sysroot.sh ARCHITECTURE DIR: downloads the headers and libraries of a Debian architecture
# into DIR, where a toolchain file and qemu find them. Does nothing when DIR is complete. The script
# runs none of the downloaded programs, so it works for any architecture.
set -euo pipefail

readonly packages=(libc6-dev libstdc++-12-dev libjsoncpp-dev libcurl4-openssl-dev
    libmosquittopp-dev libssl-dev libgtest-dev)

# Writes a dpkg database as if all packages were installed, so that dpkg-shlibdeps finds the package
# of each library. dpkg-shlibdeps searches for the path of the library, which begins with the path
# of the sysroot.
registerPackages() {
    local deb name info=$sysroot/var/lib/dpkg/info
    mkdir -p "$info"
    echo 1 >"$info/format"
    for deb in "$sysroot"/var/cache/apt/archives/*.deb; do
        name=$(dpkg-deb --field "$deb" Package)
        if [[ $(dpkg-deb --field "$deb" Multi-Arch) == same ]]; then
            name+=:$architecture
        fi
        dpkg-deb --control "$deb" "$sysroot/control"
        for file in shlibs symbols; do
            [[ ! -e $sysroot/control/$file ]] || mv "$sysroot/control/$file" "$info/$name.$file"
        done
        rm -r "$sysroot/control"
        dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -n "s|^\./\(.*[^/]\)\$|$sysroot/\1|p" \
            >"$info/$name.list"
        {
            dpkg-deb --field "$deb" | sed '1a Status: install ok installed'
            echo
        } >>"$sysroot/var/lib/dpkg/status"
        rm "$deb"
    done
}

# An absolute link would lead out of the sysroot, to this machine's own libraries.
makeLinksRelative() {
    local link target
    while IFS= read -r -d '' link; do
        target=$sysroot$(readlink "$link")
        ln -sf "$(realpath --relative-to="${link%/*}" -ms "$target")" "$link"
    done < <(find "$sysroot" -type l -lname '/*' -print0)
}

if [[ $# -ne 2 ]]; then
    echo "usage: make-sysroot.sh ARCHITECTURE DIR" >&2
    exit 2
fi
here=$(dirname "$(realpath "$0")")
architecture=$1
sysroot=$(realpath -m "$2")

# The mark is written last, so that an incomplete download is repeated.
mark="$architecture $sysroot ${packages[*]}"
if [[ -e $sysroot.complete && $(<"$sysroot.complete") == "$mark" ]]; then
    exit 0
fi
echo "Downloading the libraries for $architecture to $sysroot"
rm -rf "$sysroot" "$sysroot".*
mkdir -p "${sysroot%/*}"
if ! "$here/debian-root.sh" --mode=chrootless --variant=extract --architectures="$architecture" \
    --skip=cleanup/apt --include="$(IFS=, && echo "${packages[*]}")" \
    "$sysroot.tar" 2>"$sysroot.log"; then
    cat "$sysroot.log" >&2
    exit 1
fi
mkdir "$sysroot"
tar -C "$sysroot" -xf "$sysroot.tar" --no-same-owner --exclude='./dev/*' --exclude='./etc/apt'
rm "$sysroot.tar"
registerPackages
makeLinksRelative
echo "$mark" >"$sysroot.complete"
