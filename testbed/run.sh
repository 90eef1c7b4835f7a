#!/usr/bin/env bash
# run.sh PROGRAM [ARG...]: runs PROGRAM in namespaces of its own, without being root: a network that
# is the loopback interface alone, where every port is free; mounts that nobody else sees, among them
# a folder for temporary files, so that nothing is left behind; process ids that all end with
# PROGRAM's. PROGRAM gets SIGINT and SIGTERM; when this script is killed, all end.
set -euo pipefail

if [[ $1 == --inside ]]; then
    ip link set lo up
    mount --no-mtab -t tmpfs testbed /mnt
    TMPDIR=/mnt exec "${@:2}"
fi
# A shell's background jobs ignore SIGINT, and unshare ignores SIGTERM and passes nothing on.
env --default-signal=INT setpriv --pdeathsig KILL \
    unshare --map-root-user --mount --net --pid --fork --kill-child --mount-proc \
    "$BASH" "$0" --inside "$@" &
trap : INT # the terminal sends it to PROGRAM, too
trap 'kill -TERM $(<"/proc/$!/task/$!/children")' TERM
status=0
while kill -0 $! 2>/dev/null; do
    wait $! && status=0 || status=$?
done
exit "$status"
