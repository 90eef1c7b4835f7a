# Sourced by run.sh: prints what happens, each line with a label that says who speaks. In colour on a
# terminal only.
# shellcheck shell=bash

: "${work:?}"

bold='' grey='' green='' red='' blue='' plain=''
if [[ -t 1 && -z ${NO_COLOR-} ]]; then
    bold=$'\e[1m' grey=$'\e[90m' green=$'\e[32m' red=$'\e[31m' blue=$'\e[36m' plain=$'\e[0m'
fi
shownLines=0 # of the daemon's log

# stage TITLE EXPLANATION
stage() { printf '\n%s%s%s\n%s\n' "$bold" "$1" "$plain" "$2"; }

# say COLOUR LABEL TEXT
say() { printf '%s%16s%s  %s\n' "$1" "$2" "$plain" "$3"; }

# showDaemonLines [LAST]: prints the daemon's records since the last call, or up to the one that holds
# LAST. Left out is what the datagram, the cloud and the broker show anyway, and the lines of the
# configuration dump.
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

# jsonText NAME LINE: the string or number that the member NAME has in a line of compact JSON, nothing
# when there is none.
jsonText() {
    [[ $2 =~ \"$1\":(\"(([^\"\\]|\\.)*)\"|[0-9]+) ]] || return 0
    if [[ ${BASH_REMATCH[1]} == \"* ]]; then
        printf '%b' "${BASH_REMATCH[2]//\\\"/\"}"
    else
        printf '%s' "${BASH_REMATCH[1]}"
    fi
}

# Prints a request as the cloud saw it: a line of the stand-in cloud's output.
showCloudRequest() {
    local headers header
    say "$blue" "cloud got" "$(jsonText method "$1") $(jsonText path "$1")"
    headers=${1#*\"headers\":\{}
    headers=${headers%%\}*}
    while IFS= read -r header; do
        header=${header//\":\"/: }
        say "$blue" "" "${header//\"/}"
    done <<<"${headers//\",\"/$'\n'}"
    say "$blue" "" "$(jsonText body "$1")"
    say "$green" "cloud says" "$(jsonText verdict "$1"); answered $(jsonText status "$1")"
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
