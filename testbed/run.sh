#!/usr/bin/env bash
# run.sh PROGRAM [ARG...]: runs PROGRAM in namespaces of its own. Needs no root privileges.
#
# - Network: only the loopback interface, with all ports free.
# - Mounts: private, with a temporary directory that disappears at the end.
# - Processes: all end together with PROGRAM, and with this script.
#
# SIGINT and SIGTERM are passed on to PROGRAM.
set -euo pipefail

if [[ $1 == --inside ]]; then
    ip link set lo up
    mount --no-mtab -t tmpfs testbed /mnt
    TMPDIR=/mnt exec "${@:2}"
fi
# Background jobs of a shell ignore SIGINT, so it is reset. unshare does not pass on SIGTERM, so the
# trap below sends it to the child of unshare.
env --default-signal=INT setpriv --pdeathsig KILL \
    unshare --map-root-user --mount --net --pid --fork --kill-child --mount-proc \
    "$BASH" "$0" --inside "$@" &
trap : INT # the terminal also sends SIGINT to PROGRAM
trap 'kill -TERM $(<"/proc/$!/task/$!/children")' TERM
status=0
while kill -0 $! 2>/dev/null; do
    wait $! && status=0 || status=$?
done
exit "$status"
