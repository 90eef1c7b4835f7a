#!/usr/bin/env bash
# run.sh PROGRAM [ARG...]: runs a measuring program with certificates of its own, in a folder that
# is gone afterwards, as PROGRAM FOLDER ARG...
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: run.sh PROGRAM [ARG...]" >&2
    exit 2
fi
demo=$(dirname "$(realpath "$0")")/../demo
work=$(mktemp --directory --tmpdir lora-veyra-bench.XXXXXXXXXX)
trap 'rm -rf -- "$work"' EXIT
"$demo/make-certificates.sh" "$work/certificates"
"$demo/with-ca.sh" "$work/certificates/ca.pem" "$1" "$work" "${@:2}"
