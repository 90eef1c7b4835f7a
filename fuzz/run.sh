#!/usr/bin/env bash
# run.sh BUILD SECONDS: runs every fuzzer of the build folder for that long. What they learn stays
# in BUILD/corpus and is built upon the next time. Ends at the first input that makes one fail.
set -euo pipefail

if [[ $# -ne 2 ]]; then
    echo "usage: run.sh BUILD SECONDS" >&2
    exit 2
fi
seeds=$(dirname "$(realpath "$0")")/seeds
for name in Datagram Reply GatewayKey Device; do
    program=$1/bench/fuzz/fuzz-$name
    corpus=$1/corpus/$name
    mkdir -p "$corpus"
    echo "fuzz-$name, $2 s"
    if ! "$program" -max_total_time="$2" -max_len=16384 -timeout=10 -print_final_stats=1 \
        -dict="${seeds%/*}/json.dict" -artifact_prefix="$1/found-$name-" "$corpus" "$seeds/$name" 2>"$corpus.log"; then
        tail -n 40 "$corpus.log" >&2
        for input in "$1/found-$name-"*; do
            echo "To see it again: $program $input" >&2
        done
        exit 1
    fi
    grep -E '^stat::number_of_executed_units|^Done|DONE' "$corpus.log"
done
