#!/usr/bin/env bash
# test-reproducible.sh: builds the packages of build-packages a second time, in a different
# directory, as a different user, with a different umask, time zone, language and number of jobs.
# Exit status 1 when a byte of any package differs.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly first=$PWD/build-packages
work=$(mktemp --directory --tmpdir lora-veyra-reproducible.XXXXXXXXXX)
trap 'rm -rf "$work"' EXIT
readonly second=$work/another/tree

mkdir -p "$second" "$work/home"
tar -c --exclude='./build*' --exclude=./.git . | tar -xC "$second"
as_user=()
if [[ $(id -u) -eq 0 ]]; then
    as_user=(setpriv --reuid=54321 --regid=54321 --clear-groups)
    chmod 0755 "$work"
    chown -R 54321:54321 "$work/home" "$work/another"
fi
# The copy has no history, so SOURCE_DATE_EPOCH passes on the time of the commit.
SOURCE_DATE_EPOCH=$(sed -n 's/^# SOURCE_DATE_EPOCH=//p' "$first/SHA256SUMS")
echo "Building the packages again in $second"
(umask 077 && cd "$second" && "${as_user[@]}" env SOURCE_DATE_EPOCH="$SOURCE_DATE_EPOCH" \
    HOME="$work/home" TZ=Pacific/Auckland LC_ALL=C.UTF-8 packaging/make-packages.sh 3) \
    >"$work/log" 2>&1 || { tail -n 40 "$work/log" >&2 && exit 1; }

status=0
for package in "$first"/*.deb; do
    diffoscope "$package" "$second/build-packages/${package##*/}" || status=1
done
[[ $status -eq 0 ]] && echo "test-package: the second build gave the same bytes"
exit "$status"
