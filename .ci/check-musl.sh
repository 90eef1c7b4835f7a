#!/usr/bin/env bash
# check-musl.sh: compiles the sources of the programs, without linking them, against the headers of
# musl instead of those of glibc. Debian has no C++ standard library for musl, so the programs
# cannot be linked and run.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."

libraries=$(mktemp --directory)
trap 'rm -r "$libraries"' EXIT
triplet=$(gcc -print-multiarch)
# The headers of the other libraries, without the headers of glibc in the same directory.
mkdir "$libraries/openssl"
ln -s /usr/include/{jsoncpp/json,mosquitto*.h,mqtt_protocol.h,"$triplet/curl"} "$libraries"
ln -s /usr/include{,"/$triplet"}/openssl/* "$libraries/openssl"

options=(-std=c++17 -Wall -Wextra -Werror -fsyntax-only -nostdinc -nostdinc++ -D_LIBCPP_HAS_MUSL_LIBC
    -isystem "$(clang++ -print-resource-dir)/../../../include/c++/v1"
    -isystem "$(clang++ -print-resource-dir)/include" -isystem "/usr/include/${triplet%gnu}musl"
    -idirafter "$libraries" -Iinclude -Iplatform/include -Iplatform/src -Idoctor
    -DVEYRA_VERSION='""' -DVEYRA_SERVER_PROGRAM='""' -DVEYRA_DEFAULT_LOG_FILE='""'
    -DVEYRA_DEFAULT_CONFIGURATION_FILE='""')
find src platform/src doctor -name '*.cpp' -print0 |
    xargs -0 -n 4 -P "$(nproc)" clang++ "${options[@]}"
