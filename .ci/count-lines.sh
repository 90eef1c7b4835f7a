#!/usr/bin/env bash
# Counts the lines of code of each component, without blank lines and comments, and prints the ratio
# of tests to product. Exit status 1 when the ratio is outside 0.25 to 0.40. Documents, settings,
# fuzzing seeds and make files are not counted.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly comment='//|#[ !]|#$' # a # without a space starts a directive of the preprocessor

# count DIRECTORY...: the lines of C++, Python, shell and CMake below the directories.
count() {
    local pattern patterns=()
    for pattern in '*.cpp' '*.h' '*.py' '*.sh' '*CMakeLists.txt'; do
        patterns+=("${@/%//$pattern}")
    done
    git ls-files -z -- "${patterns[@]}" | xargs -0 cat |
        grep -cvE "^[[:space:]]*($comment|\$)"
}

# component DIRECTORY...
component() {
    printf '%6d  %s\n' "$(count "$@")" "$*"
}

component src include platform
component doctor
component tests
component testbed demo
component bench fuzz
component packaging .ci
product=$(count src include platform doctor)
tests=$(count tests)
awk -v product="$product" -v tests="$tests" 'BEGIN {
    ratio = tests / product
    printf "tests to product: %.2f\n", ratio
    exit ratio < 0.25 || ratio > 0.40
}'
