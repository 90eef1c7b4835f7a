#!/usr/bin/env bash
# run.sh BUILD SECONDS: runs every fuzzer of the build folder for that long. What they learn stays
# in BUILD/corpus and is built upon the next time. Ends at the first input that makes one fail, and
# names the file that holds it.
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
