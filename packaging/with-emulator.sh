#!/usr/bin/env bash
# with-emulator.sh ARCHITECTURE COMMAND...: runs COMMAND as root in an environment in which the
# kernel can run programs of ARCHITECTURE. First runs a program of build-ARCHITECTURE/sysroot as a
# test. Ends with status 75 if the kernel cannot run that program.
#
# The settings of the machine do not change: if necessary, qemu is registered in a user namespace
# for COMMAND only, which requires Linux 6.7.
set -euo pipefail

readonly cannotRun=75 architecture=$1
here=$(dirname "$(realpath "$0")")
interpreters=("$here/../build-$architecture"/sysroot/lib/ld-linux*.so.*)
probe=$(realpath "${interpreters[0]}")

runsForeign() { "$probe" --version >/dev/null 2>&1; }

# The first 20 bytes of a program identify its instruction set. The mask ignores the byte of the
# operating system, and accepts position-independent and fixed-address programs. With "F" the kernel opens qemu now,
# because qemu does not exist in another root.
registerEmulator() {
    local emulator magic
    emulator=$(awk -v name="$architecture" '$1 == name { print $5 "-static" }' \
        "$here/../cmake/targets.list")
    magic=$(od -An -v -tx1 -N20 "$probe" | tr -d '\n' | sed 's/ /\\x/g')
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    printf '%s' ":foreign:M::$magic:" \
        '\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:' \
        "$(command -v "$emulator"):F" >/proc/sys/fs/binfmt_misc/register
}

if [[ $2 == --in-namespace ]]; then
    echo unshared
    read -r
    registerEmulator 2>/dev/null && runsForeign || exit "$cannotRun"
    exec "${@:3}" >&3 3>&- </dev/null
fi
if runsForeign; then
    exec "${@:2}"
fi

# Users and groups keep their numbers. Only a process outside the user namespace can set this
# mapping.
exec 3>&1
coproc child { exec unshare --user --mount "$0" "$architecture" --in-namespace "${@:2}"; }
childPid=$! # of the coprocess
read -r <&"${child[0]}" || exit "$cannotRun"
echo "0 0 65536" >"/proc/$childPid/uid_map"
echo "0 0 65536" >"/proc/$childPid/gid_map"
echo mapped >&"${child[1]}"
wait "$childPid"
