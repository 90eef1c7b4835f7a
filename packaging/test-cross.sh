#!/usr/bin/env bash
# test-cross.sh ARCHITECTURE JOBS: runs the tests on another instruction set. The unit tests run in
# the emulator. The tests of the daemon and the doctor run natively, and start the emulated daemon
# and the emulated doctor.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

readonly jobs=$2
export ARCH=$1
readonly build=$PWD/build-$ARCH

packaging/make-sysroot.sh "$ARCH" "$build/sysroot"
cmake --preset cross
cmake --build --preset cross -j "$jobs"
cmake --preset release
cmake --build --preset release -j "$jobs"
ctest --preset cross -j "$jobs"

# Does not use binfmt of the kernel, because that is a setting of the whole machine.
emulator=$(awk -v architecture="$ARCH" '$1 == architecture { print $5 "-static" }' cmake/targets.list)
for program in server doctor; do
    printf '#!/bin/sh\nexec %s -L "%s" "%s" "$@"\n' \
        "$emulator" "$build/sysroot" "$build/lora-veyra-$program" >"$build/emulated-$program"
    chmod +x "$build/emulated-$program"
done

# Leaves out long tests, measurements, and tests that the emulator does not support.
leftOut='ten_thousand|processor_time|large_response|any_moment|without_a_network_thread'
VEYRA_DAEMON_PROGRAM=$build/emulated-server VEYRA_DOCTOR_PROGRAM=$build/emulated-doctor \
    ctest --preset release -j 4 -R '^(relay|broker|lifecycle|startup|doctor[a-z_]*)\.' -E "$leftOut"
