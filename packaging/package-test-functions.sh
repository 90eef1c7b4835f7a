# shellcheck shell=bash
# Functions that the package tests source. Each test runs in namespaces of its own, where the
# default ports are free. All mounts and processes disappear when the test ends. The peers run
# outside the Debian root directory in which the package is tested.

readonly root=$1 name=lora-veyra-server user=lora-veyra deadlineS=30
readonly conf=/etc/$name.conf logFolder=/var/log/$name
readonly log=$logFolder/$name.log
readonly key=00112233-4455-6677-8899-aabbccddeeff deviceId=DEVICE
readonly work=$root/peers
PATH=$PATH:/usr/sbin:/sbin
enter=(chroot "$root")

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
    "${enter[@]}" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C \
        DEBIAN_FRONTEND=noninteractive "$@"
}

apt() {
    inRoot apt-get -qq -y -o Dpkg::Options::=--force-confold "$@" >>"$work/apt.out" 2>&1 ||
        fail "apt-get $*"
}
not() { ! "$@"; }
hasText() { grep -qsF -- "$2" "$1"; }
hasLines() { [[ $(grep -sc "$2" "$1") -ge $3 ]]; }
# isOwned PATH "MODE OWNER GROUP"
isOwned() { [[ $(inRoot stat -c '%a %U %G' "$1") == "$2" ]]; }
isUser() { inRoot getent passwd "$user" >/dev/null; }
isGroup() { inRoot getent group "$user" >/dev/null; }
leftovers() {
    find "$root" -xdev \( -path "$root/proc" -o -path "$work" -o -path "$root/var/lib/dpkg" \
        -o -path "$root/var/log/apt" -o -path "$root/var/log/journal" \) -prune \
        -o -name '*veyra*' -print
}

startPeers() {
    ip link set lo up
    rm -rf "$work"
    mkdir "$work"
    testbed/make-certificates.sh "$work/certificates"
    printf 'listener 1883 127.0.0.1\nallow_anonymous true\nuser root\n' >"$work/broker.conf"
    mosquitto -c "$work/broker.conf" </dev/null >"$work/broker.out" 2>&1 &
    PYTHONPATH=$PWD PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m testbed.cloud \
        "$work/certificates/cloud.pem" "$work/certificates/cloud.key" "$key$deviceId" 8443 \
        </dev/null >"$work/cloud.out" 2>&1 &
    # shellcheck disable=SC2034 # for the tests that pause it
    cloud=$!
    await "the cloud listens" hasText "$work/cloud.out" "listening"
    stdbuf -oL mosquitto_sub -d -q 1 -t lora/veyra </dev/null >"$work/replies.out" 2>&1 &
    await "a subscriber takes the place of the network server" \
        hasText "$work/replies.out" "received SUBACK"
}

configure() {
    sed -i -e 's/"level": 40/"level": 50/' \
        -e "s/00000000-0000-0000-0000-000000000000/$key/" "$root$conf"
    inRoot mkdir -p /run/config
    inRoot tee /run/config/device_info.json <<<"{\"deviceId\": \"$deviceId\"}" >/dev/null
    # Replaces the link to the real CA certificate.
    rm -f "$root/etc/ssl/certs/DigiCert_Global_Root_CA.pem"
    install -m 0644 "$work/certificates/ca.pem" "$root/etc/ssl/certs/DigiCert_Global_Root_CA.pem"
    cp "$root$conf" "$work/edited.conf"
}

# send PATH SERIAL
send() {
    printf '{"path": "%s", "request": {"brantle_serial": %s}}' "$1" "$2" >/dev/udp/127.0.0.1/1790
}

# relay NUMBER: checks datagram NUMBER on its whole path.
relay() {
    send m1/gateways/SN1/check_in '"SN1"'
    await "the reply to datagram $1 is on the broker" hasLines "$work/replies.out" '^{' "$1"
    await "its signature was valid" \
        hasLines "$work/cloud.out" '"verdict": "signature valid"' "$1"
}

# The options of every run of the doctor.
doctorOptions=()

# doctor LINES: the doctor finds no problem, and at least LINES checks are ok. Two checks may be
# unknown here: "clock", because the mock cloud may send no Date header, and "errors", because an
# earlier run of the daemon may have been killed.
doctor() {
    inRoot lora-veyra-doctor "${doctorOptions[@]}" >"$work/doctor.out" 2>&1 &&
        [[ $(grep -c '^ok ' "$work/doctor.out") -ge $1 ]] &&
        ! grep '^unknown' "$work/doctor.out" | grep -qvE '^unknown *(clock|errors) '
}
