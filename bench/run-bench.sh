#!/usr/bin/env bash
# run-bench.sh BUILD SLICES: runs BUILD/bench/benchmark with certificates of its own, in a folder
# that is gone afterwards.
set -euo pipefail

if [[ $# -ne 2 || ! -x $1/bench/benchmark ]]; then
    echo "usage: run-bench.sh BUILD SLICES" >&2
    exit 2
fi
demo=$(dirname "$(realpath "$0")")/../demo
work=$(mktemp --directory --tmpdir lora-veyra-bench.XXXXXXXXXX)
trap 'rm -rf -- "$work"' EXIT
"$demo/make-certificates.sh" "$work/certificates"
"$demo/with-ca.sh" "$work/certificates/ca.pem" "$1/bench/benchmark" "$work" "$2"
