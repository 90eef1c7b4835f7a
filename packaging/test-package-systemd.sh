#!/usr/bin/env bash
# test-package-systemd.sh ROOT: boots the systemd of the Debian root ROOT, installs /package.deb
# there, and checks that systemd ends the states that the program never leaves by itself. Called by
# test-packages.sh in namespaces of its own. Ends with status 75 where systemd cannot be booted.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
# shellcheck source=packaging/package-test-functions.sh
. packaging/package-test-functions.sh

readonly cannotRun=75

# The environment of systemd in a container: no devices, read-only kernel settings.
becomeSystemd() {
    local item
    mount --bind "$root" "$root"
    cd "$root"
    for item in run tmp dev; do
        mount -t tmpfs -o mode=755 "$item" "$item"
    done
    chmod 1777 tmp
    for item in null zero full random urandom tty; do
        touch "dev/$item"
        mount --bind "/dev/$item" "dev/$item"
    done
    mkdir dev/pts dev/shm
    mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
    ln -s pts/ptmx dev/ptmx
    ln -s /proc/self/fd dev/fd
    mount -t proc proc proc
    mount --bind -o ro proc/sys proc/sys
    mount -t sysfs -o ro sysfs sys
    mount -t cgroup2 cgroup2 sys/fs/cgroup
    hostname container
    pivot_root . mnt
    umount -l mnt
    exec env -i container=other /lib/systemd/systemd --unit=sysinit.target
}

# Only the control groups outlive the namespaces.
removeGroup() {
    [[ -z ${unshare-} ]] || kill -KILL "$unshare"
    while grep -q "populated 1" "$group/cgroup.events"; do
        sleep 0.1
    done
    find "$group" -depth -type d -exec rmdir {} +
}

bootSystemd() {
    local children
    echo "Boot"
    mkdir "$work/cgroup"
    mount -t cgroup2 cgroup2 "$work/cgroup" || exit "$cannotRun"
    group=$(mktemp --directory "$work/cgroup/lora-veyra-packages.XXXXXXXXXX") || exit "$cannotRun"
    trap removeGroup EXIT
    # shellcheck disable=SC2016 # the inner shell expands them
    sh -c 'echo $$ >"$1/cgroup.procs" && shift && exec "$@"' sh "$group" \
        unshare --mount --pid --uts --ipc --cgroup --fork --kill-child \
        packaging/test-package-systemd.sh "$root" --become \
        </dev/null >"$work/systemd.out" 2>&1 &
    unshare=$!
    disown
    children=/proc/$unshare/task/$unshare/children
    await "systemd was started" grep -q . "$children"
    enter=(nsenter --target "$(tr -d ' ' <"$children")" --mount --pid --uts --ipc --cgroup)
    await "and is up" isUp
}

property() { inRoot systemctl show --property "$1" --value "$name"; }
isUp() { [[ $(inRoot systemctl is-system-running 2>/dev/null) == @(running|degraded) ]]; }
isActive() { inRoot systemctl --quiet is-active "$name"; }
# isRestarted PID: the service runs, and its process is not PID.
isRestarted() { isActive && [[ $(property MainPID) != "$1" ]]; }

# The journal of the unit since the mark.
mark=0
inJournal() {
    inRoot journalctl --quiet --unit "$name" --output cat >"$work/journal.out"
    hasText <(tail -n "+$((mark + 1))" "$work/journal.out") "$1"
}
markJournal() { mark=$(inRoot journalctl --quiet --unit "$name" --output cat | wc -l); }
expectInJournal() {
    local text
    for text in "$@"; do
        await "the journal has \"$text\"" inJournal "$text"
    done
}

# The other tests use shorter limits. The drop-in disappears with this systemd.
testInstallation() {
    local folder=/run/systemd/system/$name.service.d
    echo "Installation under systemd"
    apt install --no-install-recommends /package.deb
    check "systemd has started it" inJournal "Starting "
    check "and it has reported that it is ready" isActive
    check "its limits are as shipped" \
        test "$(property WatchdogUSec) $(property TimeoutStartUSec)" = "10min 5min"
    configure
    inRoot mkdir "$folder"
    printf '%s\n' "[Service]" WatchdogSec=3 RestartSec=1 TimeoutStartSec=5 TimeoutStopSec=2 |
        inRoot tee "$folder/limits.conf" >/dev/null
    inRoot systemctl daemon-reload
    inRoot systemctl restart "$name"
    relay 1
    sleep 7
    check "systemd does not restart it while it sends notifications" \
        test "$(property NRestarts)" -eq 0
    check "the doctor finds no problem" doctor 12
}

testLockHeld() {
    local pid
    echo "The lock is held"
    pid=$(property MainPID)
    markJournal
    send p '{}'
    send m1/second '"SN1"'
    expectInJournal "Watchdog timeout (limit 3s)!" "with signal SIGKILL" \
        "Failed with result 'watchdog'"
    await "it was restarted" isRestarted "$pid"
    relay 2
}

testNoAnswer() {
    local pid
    echo "A request without a response"
    pid=$(property MainPID)
    markJournal
    kill -STOP "$cloud"
    send m1/third '"SN1"'
    expectInJournal "Watchdog timeout (limit 3s)!" "Failed with result 'watchdog'"
    kill -CONT "$cloud"
    await "it was restarted" isRestarted "$pid"
    relay 3
}

# A port that is not a number is not tested at startup.
testPortTaken() {
    local holder
    echo "The bind is repeated"
    inRoot systemctl stop "$name"
    sed -i 's/"veyraPort": 1790/"veyraPort": null/' "$root$conf"
    /usr/bin/python3 -c 'import signal, socket
holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
holder.bind(("127.0.0.1", 1790))
signal.pause()' &
    holder=$!
    await "the port is in use" hasText /proc/net/udp ": 0100007F:06FE "
    markJournal
    inRoot systemctl start --no-block "$name"
    expectInJournal "start operation timed out. Terminating." \
        "State 'stop-sigterm' timed out. Killing." "Failed with result 'timeout'"
    kill "$holder"
    await "it was restarted" isActive
    relay 4
}

testPurge() {
    echo "Purge under systemd"
    apt purge "$name"
    check "the service is not running" not isActive
    check "no file is left" test -z "$(leftovers)"
    check "the user is removed" not isUser
    check "the group is removed" not isGroup
}

if [[ ${2-} == --become ]]; then
    becomeSystemd
fi
mount --make-rprivate /
mount -t proc proc /proc
startPeers
bootSystemd
testInstallation
testLockHeld
testNoAnswer
testPortTaken
testPurge
