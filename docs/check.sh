#!/usr/bin/env bash
# check.sh: holds the documents against the program's sources.
#
# - protocol.md: runs the worked example as it stands there; every token, time and path in the
#   document must be what goes into the example and comes out of it.
# - operations.md: every log record of src/ has a table row with its level and its exact text, and
#   every such row has its record in src/.
#
# Prints what does not agree; exit status 1 when anything does not.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")"

readonly protocol=protocol.md operations=operations.md
readonly blank='[[:space:]]*' literal='"([^"\\]|\\.)*"'
faults=0

fault() {
    echo "docs/check.sh: $1" >&2
    faults=$((faults + 1))
}

# The fenced block of protocol.md that computes the token.
exampleBlock() {
    awk '!/^```/ { block = block $0 "\n"; next }
         inside && block ~ /sha256sum/ { printf "%s", block; exit }
         { inside = !inside; block = "" }' "$protocol"
}

# expectEverywhere WHAT PATTERN VALUE: PATTERN matches in protocol.md, and always VALUE.
expectEverywhere() {
    local found
    found=$(grep -oE "$2" "$protocol" | sort -u) || found=
    [[ $found == "$3" ]] ||
        fault "$protocol: the $1 of the example is \"$3\", the document has \"${found//$'\n'/ }\""
}

# assigned NAME BLOCK: the value that BLOCK gives to NAME, between single quotes.
assigned() { sed -n "s/^$1='\(.*\)'\$/\1/p" <<<"$2"; }

checkExample() {
    local block digest
    block=$(exampleBlock)
    if [[ -z $block ]]; then
        fault "$protocol: there is no worked example"
        return
    fi
    digest=$(bash -euo pipefail -c "$block")
    expectEverywhere token '\b[0-9a-f]{64}\b' "${digest%% *}"
    expectEverywhere timestamp '\b[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{6}Z' \
        "$(assigned timestamp "$block")"
    expectEverywhere path '\bm1/gateways/\w+/check_in' "$(assigned path "$block")"
}

# joinLiterals SOURCE: the text of adjacent string literals, their quotes without backslashes.
joinLiterals() {
    local rest=$1 text=
    while [[ $rest =~ ^$blank\"(([^\"\\]|\\.)*)\" ]]; do
        rest=${rest#"${BASH_REMATCH[0]}"}
        text+=${BASH_REMATCH[1]}
    done
    echo "${text//\\\"/\"}"
}

# printCalls SOURCE: "LEVEL TEXT" of every log call.
printCalls() {
    local rest=$1 call="VEYRA_LOG\\($blank([A-Z]+)$blank,$blank(($literal$blank)+)"
    while [[ $rest =~ $call ]]; do
        rest=${rest#*"${BASH_REMATCH[0]}"}
        echo "${BASH_REMATCH[1]} $(joinLiterals "${BASH_REMATCH[2]}")"
    done
}

# printLiterals SOURCE BEFORE: the string literals that come right after the pattern BEFORE.
printLiterals() {
    local rest=$1 place="$2$blank(($literal$blank)+)"
    while [[ $rest =~ $place ]]; do
        rest=${rest#*"${BASH_REMATCH[0]}"}
        joinLiterals "${BASH_REMATCH[1]}"
    done
}

readSources() {
    local source calls
    source=$(find ../src -name '*.cpp' -exec cat {} +)
    mapfile -t records < <(printCalls "$source")
    calls=$(grep -c 'VEYRA_LOG(' <<<"$source") || calls=0
    ((calls > 0 && calls == ${#records[@]})) ||
        fault "src: $calls log calls, ${#records[@]} of them with a level and a literal text"

    # What the records with the text "%s" are made of.
    mapfile -t parts < <(printLiterals "$source" 'exceptionRecord\(' &&
        printLiterals "$source" 'sourceName,')
    ((${#parts[@]} > 0)) || fault "src: no records of exceptions"
}

# What operations.md says is logged: "LEVEL TEXT".
readRows() {
    # shellcheck disable=SC2016 # backticks of the document
    local row='^\| (ERROR|WARNING|INFO|DEBUG|TRACE) \| `([^`]+)` \|.*'
    mapfile -t rows < <(sed -nE "s/$row/\1 \2/p" "$operations")
}

# hasRow PATTERN: a row matches the glob PATTERN.
hasRow() {
    local row
    for row in "${rows[@]}"; do
        # shellcheck disable=SC2053 # a pattern is what is wanted
        [[ $row != $1 ]] || return 0
    done
    return 1
}

quoted() { printf '%s' "$1" | sed 's/[][*?\\]/\\&/g'; }

checkRecords() {
    local record part
    for record in "${records[@]}"; do
        [[ $record == "ERROR %s" ]] || hasRow "$(quoted "$record")" ||
            fault "$operations: no row for $record"
    done
    for part in "${parts[@]}"; do
        hasRow "ERROR *$(quoted "$part")*" || fault "$operations: no ERROR row with \"$part\""
    done
}

checkRows() {
    local row known
    for row in "${rows[@]}"; do
        for known in "${records[@]}"; do
            [[ $row != "$known" ]] || continue 2
        done
        for known in "${parts[@]}"; do
            [[ $row != "ERROR "*"$known"* ]] || continue 2
        done
        fault "$operations: src prints no $row"
    done
}

checkExample
readSources
readRows
checkRecords
checkRows
((faults == 0))
