# Sourced by run.sh: prints what happens, each line with a label that says who speaks. In colour on
# a terminal only.
# shellcheck shell=bash

: "${work:?}"

bold='' grey='' green='' red='' blue='' plain=''
if [[ -t 1 && -z ${NO_COLOR-} ]]; then
    bold=$'\e[1m' grey=$'\e[90m' green=$'\e[32m' red=$'\e[31m' blue=$'\e[36m' plain=$'\e[0m'
fi
shownLines=0 # of the daemon's log

# stage TITLE EXPLANATION..., a line each
stage() {
    printf '\n%s%s%s\n' "$bold" "$1" "$plain"
    printf '%s\n' "${@:2}"
}

# say COLOUR LABEL TEXT
say() { printf '%s%16s%s  %s\n' "$1" "$2" "$plain" "$3"; }

# showDaemonLines [LAST]: prints the daemon's records since the last call, or up to the one that
# holds LAST. Left out is what the datagram, the cloud and the broker show anyway, and the lines of
# the configuration dump.
showDaemonLines() {
    local -a lines
    local line
    mapfile -t -s "$shownLines" lines <"$work/daemon.log"
    for line in "${lines[@]}"; do
        shownLines=$((shownLines + 1))
        line=${line%$'\r'}
        case $line in
            *" TRACE Parse upstream message ["* | *" TRACE request body: "*) ;;
            *" TRACE Curl Request "* | *" TRACE Curl Response "*) ;;
            20??-??-??T*" ERROR "*) say "$red" "daemon's log" "$line" ;;
            20??-??-??T*) say "$grey" "daemon's log" "$line" ;;
        esac
        if [[ $# -gt 0 && $line == *"$1"* ]]; then
            break
        fi
    done
}

# takeLine FILE NUMBER: leaves the line in $REPLY.
takeLine() {
    local -a lines
    mapfile -t -s $(($2 - 1)) -n 1 lines <"$1"
    REPLY=${lines[0]-}
}

# takeMember NAME LINE: leaves in $REPLY the string or number that the member NAME has in a line of
# compact JSON, nothing when there is none.
takeMember() {
    REPLY=
    [[ $2 =~ \"$1\":(\"(([^\"\\]|\\.)*)\"|[0-9]+) ]] || return 0
    if [[ ${BASH_REMATCH[1]} == \"* ]]; then
        printf -v REPLY '%b' "${BASH_REMATCH[2]//\\\"/\"}"
    else
        REPLY=${BASH_REMATCH[1]}
    fi
}

# Prints a request as the cloud saw it: a line of the stand-in cloud's output.
showCloudRequest() {
    local name headers header
    local -A request=()
    for name in method path body verdict status; do
        takeMember "$name" "$1"
        request[$name]=$REPLY
    done
    say "$blue" "cloud got" "${request[method]} ${request[path]}"
    headers=${1#*\"headers\":\{}
    headers=${headers%%\}*}
    while IFS= read -r header; do
        header=${header//\":\"/: }
        say "$blue" "" "${header//\"/}"
    done <<<"${headers//\",\"/$'\n'}"
    say "$blue" "" "${request[body]%$'\n'}"
    say "$green" "cloud says" "${request[verdict]}; answered ${request[status]}"
}

# check TEXT COMMAND...: prints whether COMMAND is true; what is not is counted in $faults.
check() {
    local text=$1
    shift
    if "$@"; then
        say "$green" held "$text"
    else
        say "$red" "NOT HELD" "$text"
        ((faults += 1))
    fi
}
