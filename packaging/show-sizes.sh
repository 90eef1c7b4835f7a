#!/usr/bin/env bash
# show-sizes.sh BUILD: prints the sizes, stripped, of the files in the package of a build directory.
set -euo pipefail

build=$(realpath "$1")
strip=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$build/CMakeCache.txt")
stripped=$(mktemp)
trap 'rm "$stripped"' EXIT
for file in "$build"/lora-veyra-{server,doctor} "$build"/platform/libzep-platform.so; do
    "$strip" -o "$stripped" "$file"
    echo "${file#"$build"/}: $(stat -c %s "$stripped") bytes, stripped"
done
