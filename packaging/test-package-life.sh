#!/usr/bin/env bash
# test-package-life.sh ROOT BUILD: installs /package.deb in the Debian root ROOT and takes it through
# its life, with a real broker and the stand-in cloud of the build folder BUILD. Called by
# test-packages.sh in namespaces of its own: what it mounts and starts is gone when it ends, and the
# default ports are free.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly root=$1 build=$2 name=lora-veyra-server user=lora-veyra deadlineS=30
readonly conf=/etc/$name.conf logFolder=/var/log/$name
readonly log=$logFolder/$name.log
readonly key=00112233-4455-6677-8899-aabbccddeeff deviceId=DEVICE
readonly work=$root/peers
PATH=$PATH:/usr/sbin:/sbin

fail() {
    echo "FAILED: $1" >&2
    tail -n 20 "$root$log" "$work"/*.out >&2
    exit 1
}

# check TEXT COMMAND...
check() {
    "${@:2}" || fail "$1"
    echo "  $1"
}

# await TEXT COMMAND...
await() {
    local endS=$((SECONDS + deadlineS))
    until "${@:2}"; do
        ((SECONDS < endS)) || fail "$1 (waited $deadlineS s)"
        sleep 0.1
    done
    echo "  $1"
}

inRoot() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C \
        DEBIAN_FRONTEND=noninteractive "$@"
}

apt() {
    inRoot apt-get -qq -y -o Dpkg::Options::=--force-confold "$@" >>"$work/apt.out" 2>&1 ||
        fail "apt-get $*"
}
service() { inRoot "/etc/init.d/$name" "$@" >/dev/null; }
not() { ! "$@"; }
hasText() { grep -qsF -- "$2" "$1"; }
hasLines() { [[ $(grep -sc '^{' "$1") -ge $2 ]]; }
# isOwned PATH "MODE OWNER GROUP"
isOwned() { [[ $(inRoot stat -c '%a %U %G' "$1") == "$2" ]]; }
isUser() { inRoot getent passwd "$user" >/dev/null; }
isGroup() { inRoot getent group "$user" >/dev/null; }
daemonPid() { cat "$root/run/$name.pid"; }
runsAsUser() { [[ $(inRoot stat -c %U "/proc/$(daemonPid)") == "$user" ]]; }
usesPrivateLibrary() { grep -q "/usr/lib/$name/libzep-platform" "/proc/$(daemonPid)/maps"; }
isGone() { [[ ! -e /proc/$1 ]]; }
hasStarts() { hasRecords "Lora VEYRA Server started" "$1"; }
isEnabledForInit() { compgen -G "$root/etc/rc2.d/S??$name" >/dev/null; }
hasRecords() { [[ $(grep -sc "$1" "$root$log") -eq $2 ]]; }
leftovers() {
    find "$root" -xdev \( -path "$root/proc" -o -path "$work" -o -path "$root/var/lib/dpkg" \
        -o -path "$root/var/log/apt" \) -prune -o -name '*veyra*' -print
}

startPeers() {
    mkdir "$work"
    rig/make-certificates.sh "$work/certificates"
    printf 'listener 1883 127.0.0.1\nallow_anonymous true\nuser root\n' >"$work/broker.conf"
    mosquitto -c "$work/broker.conf" </dev/null >"$work/broker.out" 2>&1 &
    "$build/demo/stand-in-cloud" --certificate "$work/certificates/cloud.pem" \
        --key "$work/certificates/cloud.key" --secret "$key$deviceId" \
        </dev/null >"$work/cloud.out" 2>&1 &
    await "the cloud listens" hasText "$work/cloud.out" "listening on "
    stdbuf -oL mosquitto_sub -d -q 1 -t lora/veyra </dev/null >"$work/replies.out" 2>&1 &
    await "the network server's place at the broker is taken" \
        hasText "$work/replies.out" "received SUBACK"
}

configure() {
    local port
    port=$(sed -n 's/^listening on //p' "$work/cloud.out")
    sed -i -e 's/"level": 40/"level": 50/' -e "s|https://localhost:8443/|https://localhost:$port/|" \
        -e "s/00000000-0000-0000-0000-000000000000/$key/" "$root$conf"
    mkdir -p "$root/run/config"
    echo "{\"deviceId\": \"$deviceId\"}" >"$root/run/config/device_info.json"
    # Instead of the link to the real authority.
    rm -f "$root/etc/ssl/certs/DigiCert_Global_Root_CA.pem"
    install -m 0644 "$work/certificates/ca.pem" "$root/etc/ssl/certs/DigiCert_Global_Root_CA.pem"
    cp "$root$conf" "$work/edited.conf"
}

# relay NUMBER: the NUMBERth datagram's whole road, after as many starts. The port was open for a
# moment earlier, when it was tested.
relay() {
    await "the program has started" hasRecords "Start VeyraReceiveFunction" "$1"
    await "and listens" hasText /proc/net/udp ": 0100007F:06FE "
    printf '{"path": "m1/gateways/SN1/check_in", "request": {"brantle_serial": "SN1"}}' \
        >/dev/udp/127.0.0.1/1790
    await "the answer to datagram $1 is on the broker" hasLines "$work/replies.out" "$1"
    check "its signature was valid" \
        test "$(grep -c '"verdict":"signature valid"' "$work/cloud.out")" -eq "$1"
}

# As on a system with SysV init; systemd is installed, but does not run.
testInstallation() {
    echo "Installation"
    printf '#!/bin/sh\nexit 0\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
    apt install --no-install-recommends /package.deb
    check "the user is there" isUser
    check "the configuration is the group's to read" isOwned "$conf" "640 root $user"
    check "the log's folder is the user's" isOwned "$logFolder" "750 $user $user"
    check "systemd will start it" \
        test -h "$root/etc/systemd/system/multi-user.target.wants/$name.service"
    check "init will start it" isEnabledForInit
    await "it was started with the configuration as shipped" hasStarts 1
    check "and keeps running" service status
}

# Without systemd running, as a file. A score above 2.0 fails.
testUnit() {
    local unit=$name.service score=$work/score.out
    echo "Unit"
    check "systemd finds no fault with it" inRoot systemd-analyze verify --man=no "$unit"
    inRoot systemd-analyze security --offline=true --threshold=20 "$unit" >"$score" 2>&1 ||
        fail "the unit is exposed too much"
    tail -n 1 "$score"
}

testRelay() {
    echo "Relay"
    configure
    service restart
    await "it was restarted" hasStarts 2
    check "it runs as its user" runsAsUser
    check "it uses its private platform library" usesPrivateLibrary
    check "its log is unreadable for others" isOwned "$log" "640 $user $user"
    relay 1
}

testRotation() {
    echo "Log rotation"
    inRoot logrotate --force "/etc/logrotate.d/$name"
    check "the copy is there and unreadable for others" isOwned "$log.1.gz" "640 $user $user"
    check "the log was cut" not hasText "$root$log" "Lora VEYRA Server started"
    zcat "$root$log.1.gz" >"$work/rotated.log"
    check "the copy begins with the first record" hasText "$work/rotated.log" "Server started"
}

testStop() {
    local pid
    echo "Stop"
    pid=$(daemonPid)
    service stop
    check "it is gone" isGone "$pid"
    check "status says so" not service status
    check "it was asked to" hasText "$root$log" "Shutdown signal received 15"
}

# The next version ships another configuration, so that dpkg has to choose.
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
    check "and the group's to read" isOwned "$conf" "640 root $user"
    check "the old version is gone" isGone "$pid"
    await "the new version was started" hasStarts 2
    relay 2
}

testRemoval() {
    local pid
    echo "Removal"
    pid=$(daemonPid)
    apt remove "$name"
    check "the program is stopped" isGone "$pid"
    check "and gone" not test -e "$root/usr/sbin/$name"
    check "the edited configuration is kept" cmp "$root$conf" "$work/edited.conf"
    check "and the log" test -s "$root$log"
    check "what is left of the service starts nothing" service start
}

testPurge() {
    echo "Purge"
    apt purge "$name"
    check "nothing is left" test -z "$(leftovers)"
    check "neither the user" not isUser
    check "nor the group" not isGroup
}

ip link set lo up
mount --make-rprivate /
mount -t proc proc /proc
mount --rbind /proc "$root/proc"
startPeers
testInstallation
if [[ -e $root/bin/systemd-analyze ]]; then
    testUnit
fi
testRelay
testRotation
testStop
testUpgrade
testRemoval
testPurge
