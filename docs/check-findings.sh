#!/usr/bin/env bash
# Compares the ids of the findings in doctor/ with the table rows of doctor.md, in both directions.
# Prints the differences. Exit status 1 if there are any.
set -euo pipefail
cd "$(dirname "$0")/.."

# An id is the first argument of bad() and unknown(), often on a line of its own.
in_code() {
    cat doctor/*.cpp doctor/checks/*.cpp doctor/host/*.cpp | tr '\n' ' ' |
        grep -oE '\b(bad|unknown)\( *"[a-z]+\.[a-z0-9-]+"' | grep -oE '[a-z]+\.[a-z0-9-]+' | sort -u
}

# | `id` | ...
in_document() {
    sed -nE "s/^\| \`([a-z]+\.[a-z0-9-]+)\` \|.*/\1/p" docs/doctor.md | sort
}

if ! differences=$(diff <(in_code) <(in_document)); then
    sed -n -e 's/^< /docs\/check-findings.sh: doctor.md has no row for: /p' \
        -e 's/^> /docs\/check-findings.sh: doctor.md has a row for an unknown id: /p' \
        <<<"$differences" >&2
    exit 1
fi
