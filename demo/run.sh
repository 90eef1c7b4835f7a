#!/usr/bin/env bash
# run.sh BUILD: sends three datagrams through the daemon of the build folder BUILD, with a real MQTT
# broker and a stand-in for the Veyra cloud around it, and shows every hop. Everything is on this
# machine, on free loopback ports and in a temporary folder; nothing of it is left behind.
# Exit status 0 says that all of it went as it should.
set -euo pipefail

if [[ $# -ne 1 || ! -x $1/lora-veyra-server || ! -x $1/demo/stand-in-cloud ]]; then
    echo "usage: run.sh BUILD, the folder of lora-veyra-server and demo/stand-in-cloud" >&2
    exit 2
fi
build=$(realpath "$1")
demo=$(dirname "$(realpath "$0")")
PATH=$PATH:/usr/sbin # where Debian keeps the broker

# The gateway's secret is the key, written as a UUID, followed by the device's id.
serial=DEMO000001
deviceUuid=ffffffff-ffff-ffff-ffff-ffffffffffff # gives way to the gateway key
deviceId=DEMO-DEVICE
gatewayKey=00-11-22-33-44-55-66-77-88-99-AA-BB-CC-DD-EE-FF
gatewaySecret=00112233-4455-6677-8899-aabbccddeeff$deviceId

checkInPath=m1/gateways/$serial/check_in
statisticsPath=m1/gateways/$serial/gateway_statistics
checkIn='{"method":"POST","path":"'$checkInPath'","request":{"brantle_serial":"'$serial'",'
checkIn+='"data":{"type":"check_in","id":"first","attributes":{"firmware":"1.0"}}}}'
broken='{"path":"'$checkInPath'","request":{"brantle_serial":'
statistics='{"path":"'$statisticsPath'","request":{"brantle_serial":"'$serial'",'
statistics+='"data":{"type":"gateway_statistics","id":"second","attributes":{"rx":12,"tx":3}}}}'

# Only named here and made below the traps, so that no signal finds it made and unknown to cleanUp.
work=$(mktemp --directory --dry-run --tmpdir lora-veyra-demo.XXXXXXXXXX)
# shellcheck source=demo/peers.sh
source "$demo/peers.sh"
# shellcheck source=demo/show.sh
source "$demo/show.sh"

trap cleanUp EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
mkdir --mode=700 "$work"

sendDatagram() {
    say "$bold" "network server" "sends to 127.0.0.1:$upstreamPort  $1"
    printf '%s' "$1" >"/dev/udp/127.0.0.1/$upstreamPort"
}

# isRequest NUMBER PATH: the cloud took the request, and with it a valid signature.
isRequest() {
    takeLine "$work/cloud.out" $(($1 + 1))
    [[ $REPLY == *'"path":"/api/'$2'","status":200,"verdict":"signature valid"}' ]]
}

# followReply NUMBER PATH: shows a datagram's way through the daemon to the cloud and to the broker.
followReply() {
    await "request $1 at the cloud" hasLines "$work/cloud.out" $(($1 + 1)) # after "listening on"
    showDaemonLines " TRACE Server URL"
    takeLine "$work/cloud.out" $(($1 + 1))
    showCloudRequest "$REPLY"
    isRequest "$1" "$2" || fail "the cloud did not take request $1"
    await "reply $1 on the broker" hasLines "$work/listener.out" "$1"
    showDaemonLines
    takeLine "$work/listener.out" "$1"
    say "$green" "broker carries" "$REPLY"
}

startEverything() {
    stage "1. The gateway and its cloud" \
        "Three programs stand around the daemon: the gateway's MQTT broker, the Veyra cloud, and" \
        "somebody who listens on the broker in place of the network server."
    startBroker
    say "$green" broker "mosquitto on 127.0.0.1:$brokerPort, with user name and password"
    startCloud
    say "$green" cloud "HTTPS on https://localhost:$cloudPort/api/, checks every signature"
    startListener
    say "$green" listener "subscribed to lora/veyra"

    stage "2. The daemon" \
        "It reads its configuration and the gateway's identity, connects to the broker and waits" \
        "for datagrams. Its log is at the most talkative level here."
    startDaemon
    showDaemonLines
}

sendEverything() {
    stage "3. A check-in" \
        "The network server sends one JSON object. The daemon sends it to the cloud as one HTTPS" \
        "request and publishes the cloud's answer on the broker. X-API-HASH proves that it knows" \
        "the gateway's secret: it is the SHA-256 of the secret, the time and the path."
    sendDatagram "$checkIn"
    followReply 1 "$checkInPath"

    stage "4. A broken datagram" \
        "It ends in the middle. The daemon says so in its log and drops it: no request, no reply."
    sendDatagram "$broken"
    await "the daemon's record of the broken datagram" hasText "$work/daemon.log" " ERROR "
    showDaemonLines

    stage "5. Gateway statistics" \
        "The next one goes through as if nothing had happened, on the same TLS connection. It" \
        "names no method: POST is meant."
    sendDatagram "$statistics"
    followReply 2 "$statisticsPath"
}

# isReply NUMBER PATH ID: the message carries the cloud's answer, with the time that was signed.
isReply() {
    local reply='{"method":"POST","path":"'$2'",'
    reply+='"result":{"accepted":true,"id":"'$3'","number":'$1'}'
    takeLine "$work/cloud.out" $(($1 + 1))
    takeMember X-API-TIMESTAMP "$REPLY"
    reply+=',"timestamp":"'$REPLY'"}'
    takeLine "$work/listener.out" "$1"
    [[ $REPLY == "lora/veyra $reply" ]]
}

hasExactlyLines() { hasLines "$1" "$2" && ! hasLines "$1" $(($2 + 1)); }

isOneConnection() {
    local first
    takeLine "$work/cloud.out" 2
    takeMember connection "$REPLY"
    first=$REPLY
    takeLine "$work/cloud.out" 3
    takeMember connection "$REPLY"
    [[ -n $first && $REPLY == "$first" ]]
}

isBrokenRefused() {
    grep -E '^[0-9TZ:.-]+ (ERROR|WARNING) ' "$work/daemon.log" >"$work/complaints"
    hasExactlyLines "$work/complaints" 1 &&
        hasText "$work/complaints" " ERROR Failed to parse JSON $broken"
}

isConfigurationDumped() {
    hasText "$work/daemon.log" " INFO VEYRA Server Config" &&
        hasText "$work/daemon.log" "\"veyraPort\" : $upstreamPort"
}

stopEverything() {
    stage "6. The end" "SIGTERM asks the daemon to stop; the others follow."
    stopPeer daemon
    daemonStatus=$exitStatus
    showDaemonLines
    stopPeer listener
    stopPeer cloud
    stopPeer broker
}

checkEverything() {
    faults=0
    stage "7. Did all of it hold?" "What the cloud, the listener and the daemon's log have seen:"
    check "the check-in reached the cloud with a valid signature" isRequest 1 "$checkInPath"
    check "so did the statistics" isRequest 2 "$statisticsPath"
    check "nothing else did" hasExactlyLines "$work/cloud.out" 3
    check "both came on one TLS connection" isOneConnection
    check "the first reply was the check-in's" isReply 1 "$checkInPath" first
    check "the second was the statistics'" isReply 2 "$statisticsPath" second
    check "there was no other" hasExactlyLines "$work/listener.out" 2
    check "the broken datagram left one ERROR record, the only one" isBrokenRefused
    check "the configuration is in the log" isConfigurationDumped
    check "the daemon ended with exit status 0" test "$daemonStatus" -eq 0
}

startEverything
sendEverything
stopEverything
checkEverything
echo
if ((faults > 0)); then
    fail "$faults of the checks above did not hold"
fi
echo "${green}All of it held: 2 requests signed and answered, 2 replies published," \
    "1 broken datagram refused, clean stop.$plain"
