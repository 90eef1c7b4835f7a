#!/usr/bin/env bash
# with-arm.sh SYSROOT COMMAND...: runs COMMAND, as root, where the kernel runs 32-bit ARM programs such
# as those of SYSROOT. Ends with status 75 where that cannot be had.
#
# A machine that is not set up for it is left as it is: the kernel is told to use qemu in a user
# namespace of COMMAND's own, which takes Linux 6.7.
set -euo pipefail

readonly cannotRun=75

runsArm() { "$1" --version >/dev/null 2>&1; }

# Recognised by the header of a 32-bit little-endian ARM program. "F" has the kernel open qemu now:
# in another root it would not be found.
registerArm() {
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    printf '%s' ':arm:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00:' \
        '\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:' \
        "$(command -v qemu-arm-static):F" >/proc/sys/fs/binfmt_misc/register
}

if [[ $1 == --in-namespace ]]; then
    echo unshared
    read -r
    registerArm 2>/dev/null && runsArm "$2" || exit "$cannotRun"
    exec "${@:3}" >&3 3>&- </dev/null
fi
probe=$(realpath "$1/lib/ld-linux-armhf.so.3")
shift
if runsArm "$probe"; then
    exec "$@"
fi

# Users and groups get the numbers that they have outside, which only the outside can give them.
exec 3>&1
coproc child { exec unshare --user --mount "$0" --in-namespace "$probe" "$@"; }
childPid=$! # of the coprocess
read -r <&"${child[0]}" || exit "$cannotRun"
echo "0 0 65536" >"/proc/$childPid/uid_map"
echo "0 0 65536" >"/proc/$childPid/gid_map"
echo mapped >&"${child[1]}"
wait "$childPid"
