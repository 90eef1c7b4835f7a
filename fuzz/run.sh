#!/usr/bin/env bash
# run.sh BUILD SECONDS: runs every fuzzer of the build directory for SECONDS. The corpus stays in
# BUILD/corpus for the next run. Stops at the first failure and prints the file with the failing
# input.
set -euo pipefail

here=$(dirname "$(realpath "$0")")
for seeds in "$here"/seeds/*; do
    name=${seeds##*/}
    corpus=$1/corpus/$name
    mkdir -p "$corpus"
    echo "fuzz-$name, $2 s"
    if ! "$1/fuzz/fuzz-$name" -max_total_time="$2" -max_len=16384 -timeout=10 \
        -print_final_stats=1 -dict="$here/json.dict" -artifact_prefix="$1/found-$name-" \
        "$corpus" "$seeds" 2>"$corpus.log"; then
        tail -n 40 "$corpus.log" >&2
        exit 1
    fi
    grep -E '^stat::number_of_executed_units' "$corpus.log"
done
