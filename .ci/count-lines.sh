#!/usr/bin/env bash
# Counts lines of product and test code, without blank and comment lines, and prints their ratio.
set -euo pipefail

count() {
    git ls-files -z -- "$@" | xargs -0 -r cat | grep -cvE '^[[:space:]]*(//.*)?$'
}

product=$(count 'src/*.cpp' 'include/*.h' 'platform/*.cpp' 'platform/*.h')
tests=$(count 'tests/*.cpp' 'tests/*.h')
awk -v p="$product" -v t="$tests" \
    'BEGIN { printf "product %d lines, tests %d lines, ratio %.2f\n", p, t, t / p }'
