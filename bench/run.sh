#!/usr/bin/env bash
# run.sh PROGRAM [ARG...]: runs a measuring program with certificates of its own, as PROGRAM FOLDER
# ARG... in a folder that is gone afterwards; when it fails, the folder stays for a look.
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: run.sh PROGRAM [ARG...]" >&2
    exit 2
fi
demo=$(dirname "$(realpath "$0")")/../demo
work=$(mktemp --directory --tmpdir lora-veyra-bench.XXXXXXXXXX)
"$demo/../rig/make-certificates.sh" "$work/certificates"
if ! "$demo/with-ca.sh" "$work/certificates/ca.pem" "$1" "$work" "${@:2}"; then
    echo "run.sh: logs of all programs are in $work" >&2
    exit 1
fi
rm -rf -- "$work"
