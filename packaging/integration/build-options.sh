#!/usr/bin/env bash
# build-options.sh: configures and builds the tree in $SOURCE as integrators do, with options that
# the presets of this project do not use. PLATFORM must contain a working platform library.
set -euo pipefail

fail() {
    echo "FAILED: $1" >&2
    tail -n 20 log >&2
    exit 1
}
configure() { cmake -S "$SOURCE" -B "$@" >log 2>&1; }
build() { cmake --build "$1" -j 2 "${@:2}" >log 2>&1 || fail "building $1"; }
# rejected TEXT ARG...: CMake stops with a message that contains TEXT.
rejected() {
    ! configure "${@:2}" || fail "accepted: ${*:2}"
    tr -s '\n ' ' ' <log | grep -qF -- "$1" || fail "no message with \"$1\""
}
neededBy() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

testSourceDirectory() {
    cp -R "$SOURCE" clean
    ! (cd clean && cmake .) >log 2>&1 || fail "a build in the source directory was accepted"
    cmp clean/Makefile "$SOURCE/Makefile" || fail "the Makefile was overwritten"
}

# The compiler decides which calls it fortifies and protects, so one such call is enough. The linker
# options are visible in the file.
testHardening() {
    local type
    for type in "" RelWithDebInfo MinSizeRel; do
        configure "type-$type" -DBUILD_TESTING=OFF -DVEYRA_BUILD_DOCTOR=OFF -DCMAKE_BUILD_TYPE="$type" ||
            fail "configuring the build type \"$type\""
        build "type-$type"
        readelf -d "type-$type/lora-veyra-server" | grep -q BIND_NOW || fail "\"$type\": lazy binding"
        readelf -s --wide "type-$type/lora-veyra-server" >symbols
        grep -q __stack_chk_fail symbols || fail "\"$type\": no stack protector"
        grep -q '__[a-z]*_chk@' symbols || fail "\"$type\": not fortified"
    done
}

# platformWith DIRECTORY LINKER-OPTION...
platformWith() {
    mkdir -p "${1%/*}"
    cp -R "$PLATFORM/include" "${1%/*}"
    mkdir "$1"
    g++ -shared -fPIC -o "$1/libzep-platform.so" "$SOURCE"/platform/src/*.cpp -I "$PLATFORM/include" \
        "${@:2}"
}

testPlatforms() {
    local architecture
    architecture=$(g++ -print-multiarch)
    platformWith zep-plain/lib
    platformWith zep-moved/lib -Wl,-soname,libzep-platform.so.7
    platformWith "zep-multiarch/lib/$architecture" -Wl,-soname,libzep-platform.so
    mv zep-multiarch/lib/include zep-multiarch
    platformWith zep-64/lib64 -Wl,-soname,libzep-platform.so.9
    ln -s libzep-platform.so zep-64/lib64/libzep-platform.so.9

    rejected "has no SONAME" rejected -DZEP_PLATFORM_ROOT="$PWD/zep-plain"
    rejected "no such file" rejected -DZEP_PLATFORM_ROOT="$PWD/zep-moved"
    rejected "Required there" rejected -DZEP_PLATFORM_ROOT="$PWD/nothing"
    for root in "$PLATFORM" "$PWD/zep-multiarch" "$PWD/zep-64"; do
        configure platform-roots -DBUILD_TESTING=OFF -DZEP_PLATFORM_ROOT="$root" ||
            fail "configuring with $root"
        build platform-roots
        neededBy platform-roots/lora-veyra-server >>needed
        platform-roots/lora-veyra-server --version || fail "$root: the program does not start"
    done
    [[ $(grep zep needed | tr '\n' ' ') == \
        "libzep-platform.so.1 libzep-platform.so libzep-platform.so.9 " ]] ||
        fail "a second configuration does not use its own ZEP_PLATFORM_ROOT"
}

# testPaths NAME PREFIX SBINDIR CONFIGURATION LOG UNITS OPTION...: the installed files name each
# other's paths.
testPaths() {
    local sbin=$3 configuration=$4 log=$5 unit=$6/lora-veyra-server.service stage=$PWD/$1-stage file
    configure "$1" -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX="$2" "${@:7}" ||
        fail "configuring $1"
    build "$1"
    DESTDIR=$stage cmake --install "$1" >log 2>&1 || fail "installing $1"
    "$stage$sbin/lora-veyra-server" --version || fail "$1: the program does not find its library"
    [[ -e $stage$configuration ]] || fail "$1: no $configuration"
    grep -qxF "ExecStart=$sbin/lora-veyra-server -c $configuration -l $log" "$stage$unit" ||
        fail "$1: the unit starts something else"
    for file in "$stage${configuration%/*}"/{init.d,logrotate.d}/lora-veyra-server; do
        grep -q "${log%/*}" "$file" || fail "$file has another log"
    done
    grep -qx "DAEMON=$sbin/\$NAME" "$stage${configuration%/*}/init.d/lora-veyra-server" ||
        fail "$1: the init script starts something else"
    zcat "$stage$2"/share/man/man8/lora-veyra-server.8.gz | grep -qF "$configuration" ||
        fail "$1: the manual page names another configuration"
}

testAllPaths() {
    testPaths opt /opt/x /opt/x/sbin /etc/opt/x/lora-veyra-server.conf \
        /var/log/lora-veyra-server/lora-veyra-server.log /etc/systemd/system
    testPaths local /usr/local /usr/local/bin /usr/local/etc/lora-veyra-server.conf \
        /data/log/lora-veyra-server/lora-veyra-server.log /usr/local/lib/systemd/system \
        -DCMAKE_INSTALL_SBINDIR=bin -DCMAKE_INSTALL_LIBDIR=/usr/local/private/deep \
        -DCMAKE_INSTALL_LOCALSTATEDIR=/data
    grep -qx "ReadWritePaths=/data/log/lora-veyra-server" \
        local-stage/usr/local/lib/systemd/system/lora-veyra-server.service ||
        fail "the service cannot write its log"
}

testSubdirectory() {
    mkdir parent
    ln -s "$SOURCE" parent/server
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(firmware CXX)' \
        'add_custom_target(doctor)' 'add_custom_target(faults)' 'add_subdirectory(server)' \
        'if(DEFINED CPACK_GENERATOR OR TARGET decision-tests)' \
        '  message(FATAL_ERROR "packaging or tests in the parent")' 'endif()' >parent/CMakeLists.txt
    cmake -S parent -B subdirectory >log 2>&1 || fail "configuring as a subdirectory"
    build subdirectory
    subdirectory/server/lora-veyra-server --version ||
        fail "the program does not start in a parent project"
    DESTDIR=$PWD/parent-stage cmake --install subdirectory >log 2>&1
    [[ ! -e parent-stage ]] || fail "the parent project also installs files of the subdirectory"
}

testWithoutGoogleTest() {
    configure no-googletest -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON ||
        fail "configuring without GoogleTest"
    grep -q "No tests are built" log || fail "the tests are left out without a message"
}

# The warnings of the presets are errors here too.
testSanitizedByFlags() {
    configure sanitized -DCMAKE_CXX_FLAGS=-fsanitize=address -DCMAKE_COMPILE_WARNING_AS_ERROR=ON ||
        fail "configuring with the user's own sanitizer flags"
    build sanitized
    ctest --test-dir sanitized -j 4 -R 'CircuitBreaker|relay' --no-tests=error --output-on-failure >log ||
        fail "running the tests with the user's own sanitizer flags"
}

cd "$(mktemp --directory)"
for test in SourceDirectory Hardening Platforms AllPaths Subdirectory WithoutGoogleTest \
    SanitizedByFlags; do
    echo "build-options: $test"
    "test$test"
done
