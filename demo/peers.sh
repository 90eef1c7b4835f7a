# Sourced by run.sh: starts, awaits and stops the programs of the demo, and chooses their ports. All
# that they write is below $work.
# shellcheck shell=bash

: "${build:?}" "${demo:?}" "${work:?}" # folders
: "${deviceUuid:?}" "${deviceId:?}" "${gatewayKey:?}" "${gatewaySecret:?}"

readonly deadlineS=20
readonly brokerUser=demo brokerPassword=demo-password
declare -A pids=() # of what was started and not stopped yet, by name

# fail MESSAGE: ends the demo, showing the last that its programs said.
fail() {
    local file
    for file in "$work"/*.log "$work"/*.out "$work"/*.err; do
        [[ ! -s $file ]] || printf '\n--- end of %s\n%s\n' "${file##*/}" "$(tail -n 8 "$file")" >&2
    done
    printf '\nThe demo failed: %s\n' "$1" >&2
    exit 1
}

# The shell takes note of its programs' end by itself, so that none stays behind as a zombie.
isRunning() { kill -0 "$1" 2>/dev/null; }

# await WHAT COMMAND...: returns as soon as COMMAND is true. Ends the demo when that takes too long
# or one of its programs is gone.
await() {
    local what=$1 endS=$((SECONDS + deadlineS)) name
    shift
    until "$@"; do
        for name in "${!pids[@]}"; do
            isRunning "${pids[$name]}" || fail "$name ended before $what"
        done
        ((SECONDS < endS)) || fail "waited $deadlineS s in vain for $what"
        sleep 0.02
    done
}

hasText() { grep -qsF -- "$2" "$1"; }

# A signal that arrives while bash parses a command substitution is lost: what runs again and again
# does without them.
hasLines() { [[ -e $1 ]] && wc -l <"$1" | { read -r count && ((count >= $2)); }; }

# isPortTaken tcp|udp PORT
isPortTaken() {
    local hexPort
    printf -v hexPort %04X "$2"
    grep -qs "^ *[0-9]*: [0-9A-F]*:$hexPort " "/proc/net/$1" "/proc/net/${1}6"
}

# Below the ports that the kernel hands out by itself, so that only another demo can want the same.
freePort() {
    local port
    until port=$((20000 + RANDOM % 10000)) && ! isPortTaken "$1" "$port"; do :; done
    echo "$port"
}

startBroker() {
    brokerPort=$(freePort tcp)
    mosquitto_passwd -b -c "$work/broker.passwords" "$brokerUser" "$brokerPassword"
    # Started by root, a broker turns into the user "mosquitto" unless told otherwise, and could not
    # read its password file; started by anybody else it ignores the setting.
    cat >"$work/broker.conf" <<END
listener $brokerPort 127.0.0.1
allow_anonymous false
password_file $work/broker.passwords
user root
persistence false
log_dest stderr
log_type all
END
    mosquitto -c "$work/broker.conf" </dev/null 2>"$work/broker.err" &
    pids[broker]=$!
    await "the broker's start" isPortTaken tcp "$brokerPort"
}

startCloud() {
    "$demo/../rig/make-certificates.sh" "$work/certificates"
    "$build/demo/stand-in-cloud" --certificate "$work/certificates/cloud.pem" \
        --key "$work/certificates/cloud.key" --secret "$gatewaySecret" \
        </dev/null >"$work/cloud.out" 2>"$work/cloud.err" &
    pids[cloud]=$!
    await "the cloud's start" hasLines "$work/cloud.out" 1
    read -r _ _ cloudPort <"$work/cloud.out" # listening on PORT
}

startListener() {
    mosquitto_sub -h 127.0.0.1 -p "$brokerPort" -u "$brokerUser" -P "$brokerPassword" \
        -i demo-listener -q 1 -t lora/veyra -F '%t %p' \
        </dev/null >"$work/listener.out" 2>"$work/listener.err" &
    pids[listener]=$!
    await "the listener's subscription" hasText "$work/broker.err" "demo-listener 1 lora/veyra"
}

writeDaemonFiles() {
    mkdir -p "$work/var-run/config"
    cat >"$work/var-run/config/device_info.json" <<END
{ "uuid": "$deviceUuid", "deviceId": "$deviceId" }
END
    cat >"$work/daemon.conf" <<END
{
    "log": { "level": 50, "syslog": false, "console": false },
    "udp": { "veyraPort": $upstreamPort },
    "network": {
        "veyraServer": "https://localhost:$cloudPort/api/",
        "gatewayKey": "$gatewayKey"
    },
    "mqtt": {
        "enabled": true,
        "host": "127.0.0.1",
        "port": $brokerPort,
        "username": "$brokerUser",
        "password": "$brokerPassword"
    }
}
END
}

# The port is bound twice at start-up, first as a test, so that being bound says nothing before the
# upstream loop has begun.
isDaemonReady() {
    hasText "$work/daemon.log" "Start VeyraReceiveFunction thread" &&
        isPortTaken udp "$upstreamPort" &&
        hasText "$work/daemon.log" "MQTT - subscribed"
}

startDaemon() {
    upstreamPort=$(freePort udp)
    writeDaemonFiles
    "$demo/with-ca.sh" "$work/certificates/ca.pem" "$build/lora-veyra-server" \
        -c "$work/daemon.conf" -l "$work/daemon.log" --var-run "$work/var-run" \
        </dev/null >"$work/daemon.out" 2>"$work/daemon.err" &
    pids[daemon]=$!
    await "the daemon's start" isDaemonReady
}

# stopPeer NAME: asks it to end, and waits until it has. Leaves its exit status in $exitStatus.
stopPeer() {
    local pid=${pids[$1]}
    unset "pids[$1]"
    kill -TERM "$pid"
    await "the end of the $1" hasEnded "$pid"
    exitStatus=0
    # shellcheck disable=SC2034 # run.sh reads it
    wait "$pid" || exitStatus=$?
}

hasEnded() { ! isRunning "$1"; }

# The end of the demo, however it comes about. Asks the shell which programs run: a signal may
# arrive between the start of one and the note of its id.
cleanUp() {
    local status=$? left pid endS=$((SECONDS + 5))
    trap '' INT TERM HUP
    set +e # whatever fails, the rest has to be cleaned up
    mapfile -t left < <(jobs -p)
    [[ ${#left[@]} -eq 0 ]] || kill -TERM "${left[@]}" 2>/dev/null
    for pid in "${left[@]}"; do
        while isRunning "$pid" && ((SECONDS < endS)); do sleep 0.02; done
        ! isRunning "$pid" || kill -KILL "$pid"
    done
    rm -rf -- "$work"
    exit "$status"
}
