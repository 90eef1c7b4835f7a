#!/usr/bin/env bash
# Counts lines of code, without blank and comment lines, by room. Exit status 1 when a room holds more
# than its budget. Documents, settings, seeds and make fragments are no code.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

# count FOLDER...: C++, Python, shell and CMake below the folders.
count() {
    local pattern patterns=()
    for pattern in '*.cpp' '*.h' '*.py' '*.sh' '*CMakeLists.txt'; do
        patterns+=("${@/%//$pattern}")
    done
    # shellcheck disable=SC2016 # awk's own
    git ls-files -z -- "${patterns[@]}" | xargs -0 awk '
        { comment = FILENAME ~ /\.(cpp|h)$/ ? "//" : "#"; sub(/^[[:space:]]+/, "") }
        $0 != "" && index($0, comment) != 1 { lines++ }
        END { print lines + 0 }'
}

over=0
# room BUDGET FOLDER...; a budget of 0 is none.
room() {
    local lines
    lines=$(count "${@:2}")
    printf '%6d  %s' "$lines" "${*:2}"
    (($1 == 0)) || printf ', at most %d' "$1"
    if (($1 > 0 && lines > $1)); then
        printf ': %d too many' $((lines - $1))
        over=1
    fi
    echo
}

room 0 src include platform
room 1520 doctor
room 1320 tests
room 750 testbed demo
room 810 bench fuzz
room 0 packaging .ci
awk -v p="$(count src include platform doctor)" -v t="$(count tests)" \
    'BEGIN { printf "tests to product: %.2f\n", t / p }'
exit "$over"
