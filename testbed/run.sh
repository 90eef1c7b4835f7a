#!/usr/bin/env bash
# run.sh PROGRAM [ARG...]: runs PROGRAM in namespaces of its own. Needs no root privileges.
#
# - Network: only the loopback interface, with all ports free.
# - Mounts: private, with a temporary directory that disappears at the end.
# - Processes: all end together with PROGRAM, and with this script.
# - Users: if root starts this script, all users; otherwise only root.
#
# SIGINT and SIGTERM are passed on to PROGRAM.
set -euo pipefail

if [[ $1 == --inside ]]; then
    until read -r _ </proc/self/uid_map; do sleep 0.01; done
    ip link set lo up
    mount --no-mtab -t tmpfs testbed /mnt
    TMPDIR=/mnt exec "${@:2}"
fi
# Background jobs of a shell ignore SIGINT, so it is reset. unshare does not pass on SIGTERM, so the
# trap below sends it to the child of unshare.
if [[ $EUID == 0 ]]; then users=--user; else users=--map-root-user; fi
env --default-signal=INT setpriv --pdeathsig KILL \
    unshare "$users" --mount --net --pid --fork --kill-child --mount-proc \
    "$BASH" "$0" --inside "$@" &
if [[ $EUID == 0 ]]; then
    # Users and groups keep their numbers. Only a process outside the user namespace can set this.
    until [[ ! /proc/$!/ns/user -ef /proc/self/ns/user ]]; do sleep 0.01; done
    for map in uid_map gid_map; do
        awk '{ print $1, $1, $3 }' "/proc/self/$map" >"/proc/$!/$map"
    done
fi
trap : INT # the terminal also sends SIGINT to PROGRAM
trap 'kill -TERM $(<"/proc/$!/task/$!/children")' TERM
status=0
while kill -0 $! 2>/dev/null; do
    wait $! && status=0 || status=$?
done
exit "$status"
