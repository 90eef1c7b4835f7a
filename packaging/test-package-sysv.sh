#!/usr/bin/env bash
# test-package-sysv.sh ROOT: installs /package.deb in the Debian root ROOT and tests installation,
# upgrade and removal as on a system with SysV init, with a real broker and the mock cloud. Called
# by test-packages.sh in namespaces of its own.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
# shellcheck source=packaging/package-test-functions.sh
. packaging/package-test-functions.sh

service() { inRoot "/etc/init.d/$name" "$@" >/dev/null; }
daemonPid() { cat "$root/run/$name.pid"; }
runsAsUser() { [[ $(inRoot stat -c %U "/proc/$(daemonPid)") == "$user" ]]; }
isEmulated() { [[ $(readlink "/proc/$(daemonPid)/exe") != *"$name" ]]; }
usesPrivateLibrary() { grep -q "/usr/lib/$name/libzep-platform" "/proc/$(daemonPid)/maps"; }
isGone() { [[ ! -e /proc/$1 ]]; }
hasStarts() { hasRecords "Lora VEYRA Server started" "$1"; }
isEnabledForInit() { compgen -G "$root/etc/rc2.d/S??$name" >/dev/null; }
hasRecords() { [[ $(grep -sc "$1" "$root$log") -eq $2 ]]; }

# startedRelay NUMBER: relays datagram NUMBER after start NUMBER. Waits for the record of the start
# first, because the startup test also opens the port for a moment, before the program receives
# datagrams.
startedRelay() {
    await "the program has started" hasRecords "Start VeyraReceiveFunction" "$1"
    await "and it listens on its port" hasText /proc/net/udp ": 0100007F:06FE "
    relay "$1"
}

# systemd is installed, but is not running.
testInstallation() {
    echo "Installation"
    printf '#!/bin/sh\nexit 0\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
    apt install --no-install-recommends /package.deb
    check "the user exists" isUser
    check "the group can read the configuration" isOwned "$conf" "640 root $user"
    check "the log directory belongs to the user" isOwned "$logFolder" "750 $user $user"
    check "systemd will start it" \
        test -h "$root/etc/systemd/system/multi-user.target.wants/$name.service"
    check "init will start it" isEnabledForInit
    await "it was started with the configuration as shipped" hasStarts 1
    check "and keeps running" service status
}

# systemd is not running, so the unit is examined as a file. A score above 2.0 fails.
testUnit() {
    local unit=$name.service score=$work/score.out
    echo "Unit"
    check "systemd finds no fault in the unit" inRoot systemd-analyze verify --man=no "$unit"
    inRoot systemd-analyze security --offline=true --threshold=20 "$unit" >"$score" 2>&1 ||
        fail "the unit has too high an exposure score"
    tail -n 1 "$score"
}

testRelay() {
    echo "Relay"
    configure
    service restart
    await "it was restarted" hasStarts 2
    check "it runs as its user" runsAsUser
    check "it uses its private platform library" usesPrivateLibrary
    check "other users cannot read its log" isOwned "$log" "640 $user $user"
    startedRelay 1
}

testDoctor() {
    local outside="$root/run/config/device_info.json" file mode
    echo "Doctor"
    if isEmulated; then # the executable is the emulator, so the process must be named
        doctorOptions=(--pid "$(daemonPid)")
    else
        check "with --alive it finds no problem" service alive
    fi
    check "it finds no problem" doctor 12
    for file in "$outside" "$root$conf" "$root/etc/ssl/certs/DigiCert_Global_Root_CA.pem"; do
        mode=$(stat -c %a "$file")
        chmod 0600 "$file"
        check "it reads ${file#"$root"} as the service user" not doctor 12
        check "and says why" hasText "$work/doctor.out" "Permission denied"
        chmod "$mode" "$file"
    done
    chmod 0000 "$root/var/log/$name"
    check "it notices a log directory without permissions" not doctor 12
    check "and names the check" hasText "$work/doctor.out" "bad     log"
    chmod 0750 "$root/var/log/$name"
}

# asNobody COMMAND...: starts COMMAND as nobody in the background and stores its process id in
# $nobody.
asNobody() {
    "${enter[@]}" /usr/bin/setpriv --reuid nobody --regid nogroup --clear-groups "$@" \
        </dev/null >>"$work/nobody.out" 2>&1 &
    nobody=$!
    sleep 1
    kill -0 "$nobody" || fail "$1 has ended"
}

# The doctor, run by root, must not follow a process of an unprivileged user.
testDoctorTrust() {
    local nobody
    ! isEmulated || return 0
    echo "Doctor and processes of other users"
    # This process has another port and broker, so it does not disturb the real daemon.
    cat >"$root/tmp/evil.conf" <<'END'
{"udp": {"veyraPort": 1799}, "mqtt": {"enabled": true, "host": "127.0.0.1", "port": 9},
 "network": {"veyraServer": "https://127.0.0.1:9/evil/", "gatewayKey": "12"}}
END
    asNobody bash -c "exec -a /usr/sbin/$name bash -c 'sleep 60; :' -c /tmp/evil.conf"
    check "a process with the daemon's name is not the daemon" doctor 12
    kill "$nobody"
    cp "$root/usr/sbin/$name" "$root/tmp/$name"
    asNobody "/tmp/$name" -c /tmp/evil.conf -l /tmp/evil.log
    check "a copy of the program is not the daemon" doctor 12
    kill "$nobody"
    asNobody "/usr/sbin/$name" -c /tmp/evil.conf -l /tmp/evil.log
    check "the program itself, run by another user, is reported" not doctor 12
    check "as a problem of the service" hasText "$work/doctor.out" "bad     service"
    check "and the doctor does not use its arguments" not hasText "$work/doctor.out" "evil"
    kill "$nobody"
    rm "$root"/tmp/*
}

testRotation() {
    echo "Log rotation"
    inRoot logrotate --force "/etc/logrotate.d/$name"
    check "the copy exists, and other users cannot read it" isOwned "$log.1.gz" "640 $user $user"
    check "the log was truncated" not hasText "$root$log" "Lora VEYRA Server started"
    zcat "$root$log.1.gz" >"$work/rotated.log"
    check "the copy begins with the first record" hasText "$work/rotated.log" "Server started"
}

testStop() {
    local pid
    echo "Stop"
    pid=$(daemonPid)
    service stop
    check "it is gone" isGone "$pid"
    check "status reports that it is stopped" not service status
    check "it received SIGTERM" hasText "$root$log" "Shutdown signal received 15"
}

# The next version has another configuration file, so that dpkg must choose one of them.
makeNextVersion() {
    dpkg-deb --raw-extract "$root/package.deb" "$work/next"
    sed -i 's/^Version: .*/&+next/' "$work/next/DEBIAN/control"
    sed -i '1s/$/ Next version./' "$work/next$conf"
    dpkg-deb --root-owner-group --build "$work/next" "$root/next.deb" >/dev/null
}

testUpgrade() {
    local pid
    echo "Upgrade"
    makeNextVersion
    rm "$root$log"
    service start
    await "the old version runs" hasStarts 1
    pid=$(daemonPid)
    apt install /next.deb
    check "the new version is installed" \
        hasText <(inRoot dpkg-query --show "$name") "+next"
    check "the edited configuration is kept" cmp "$root$conf" "$work/edited.conf"
    check "and the group can read it" isOwned "$conf" "640 root $user"
    check "the old version is gone" isGone "$pid"
    await "the new version was started" hasStarts 2
    startedRelay 2
}

testRemoval() {
    local pid
    echo "Removal"
    pid=$(daemonPid)
    apt remove "$name"
    check "the program is stopped" isGone "$pid"
    check "and its file is removed" not test -e "$root/usr/sbin/$name"
    check "the edited configuration is kept" cmp "$root$conf" "$work/edited.conf"
    check "and so is the log" test -s "$root$log"
    check "the remaining init script starts nothing" service start
}

testPurge() {
    echo "Purge"
    apt purge "$name"
    check "no file is left" test -z "$(leftovers)"
    check "the user is removed" not isUser
    check "the group is removed" not isGroup
}

mount --make-rprivate /
mount -t proc proc /proc
mount --rbind /proc "$root/proc"
startPeers
testInstallation
if [[ -e $root/bin/systemd-analyze ]]; then
    testUnit
fi
testRelay
testDoctor
testDoctorTrust
testRotation
testStop
testUpgrade
testRemoval
testPurge
