#!/usr/bin/env bash
# show-sizes.sh BUILD: strips the programs and the library of a build directory and prints their
# sizes.
set -euo pipefail

build=$(realpath "$1")
strip=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$build/CMakeCache.txt")
stripped=$(mktemp)
trap 'rm "$stripped"' EXIT
for file in "$build"/lora-veyra-{server,doctor} "$build"/platform/libzep-platform.so; do
    "$strip" -o "$stripped" "$file"
    echo "${file#"$build"/}: $(stat -c %s "$stripped") bytes, stripped"
done
