#!/usr/bin/env bash
# test-armhf.sh JOBS: runs the tests on the instruction set of the gateways: the decision tests as
# emulated programs, and the daemon's and the doctor's as native programs with both emulated.
#
# Without a network there is no sysroot and nothing is tested, which is said and is no failure.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly jobs=$1 cannotDownload=75
readonly build=$PWD/build-armhf

status=0
packaging/make-sysroot.sh armhf "$build/sysroot" || status=$?
if [[ $status -eq $cannotDownload ]]; then
    echo "test-armhf: skipped, the libraries for armhf cannot be downloaded"
    exit 0
fi
[[ $status -eq 0 ]] || exit "$status"

cmake --preset armhf
cmake --build --preset armhf -j "$jobs"
cmake --preset release
cmake --build --preset release -j "$jobs"
ctest --preset armhf -j "$jobs"

# Not by the kernel's means (binfmt), which would be a setting of the whole machine.
for program in server doctor; do
    printf '#!/bin/sh\nexec qemu-arm-static -L "%s" "%s" "$@"\n' \
        "$build/sysroot" "$build/lora-veyra-$program" >"$build/emulated-$program"
    chmod +x "$build/emulated-$program"
done

# Left out is what measures or lasts, and what the emulator cannot do.
leftOut='ten_thousand|processor_time|large_response|any_moment|without_threads'
VEYRA_DAEMON_PROGRAM=$build/emulated-server VEYRA_DOCTOR_PROGRAM=$build/emulated-doctor \
    ctest --preset release -j 4 -R '^(relay|broker|lifecycle|startup|doctor)\.' -E "$leftOut"
