#!/usr/bin/env bash
# make-sysroot.sh ARCHITECTURE DIR: downloads what programs for a Debian architecture are compiled
# and linked against into DIR, where a toolchain file and qemu find it. Does nothing when DIR is
# complete. Nothing of it is run here, so any architecture will do.
set -euo pipefail

readonly packages=(libc6-dev libstdc++-12-dev libjsoncpp-dev libcurl4-openssl-dev
    libmosquittopp-dev libssl-dev libgtest-dev)

# The dpkg database of a system on which all of it were installed: dpkg-shlibdeps finds in it which
# package a library is from. It looks libraries up by the path under which it found them, which
# begins with the sysroot's.
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

# The mark is written last, so that a download that was cut short is made again.
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
