#!/usr/bin/env bash
# in-root.sh ROOT: enters the Debian root directory ROOT, which represents an integrator's machine,
# and runs the guide there. Called by run.sh in namespaces of its own.
set -euo pipefail

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

# The tests use namespaces, which cannot be created inside a chroot.
enterRoot() {
    mount --bind "$1" "$1"
    cd "$1"
    mount --rbind /dev dev
    mount -t proc proc proc
    mount -t tmpfs tmp tmp
    pivot_root . mnt
    umount -l mnt
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C \
        CMAKE_GENERATOR=Ninja SOURCE="/source tree" STAGE="/root/stage" TOOLCHAIN=/root/toolchain.cmake \
        PLATFORM=/root/platform "/source tree/packaging/integration/in-root.sh" --entered
}

# Files that the guide assumes.
prepare() {
    ip link set lo up
    mkdir "/root/build machine"
    cd "/root/build machine"
    mkdir -p "$STAGE" "$PLATFORM"/{include,lib}
    printf 'set(%s)\n' "CMAKE_SYSTEM_NAME Linux" "CMAKE_SYSTEM_PROCESSOR $(uname -m)" \
        "CMAKE_CXX_COMPILER g++" >"$TOOLCHAIN"
    cmake -S "$SOURCE/platform" -B build-zep >/dev/null
    cmake --build build-zep >/dev/null
    cp -R "$SOURCE/platform/include/ZEP" "$PLATFORM/include"
    cp -P build-zep/libzep-platform.so* "$PLATFORM/lib"
    "$SOURCE/testbed/make-certificates.sh" certificates
    cp certificates/ca.pem private-ca.pem
}

checkStage() {
    local file
    for file in usr/sbin/lora-veyra-{server,doctor} etc/{,init.d/,logrotate.d/}lora-veyra-server* \
        lib/systemd/system/lora-veyra-server.service usr/share/man/man8/lora-veyra-{server,doctor}.8.gz \
        usr/share/doc/lora-veyra-server/{operations,integration}.md; do
        compgen -G "$STAGE/${file/#lib/usr/lib}" >/dev/null || fail "$file was not installed"
    done
    grep -q '^lora-veyra:' "$STAGE/etc/passwd" || fail "there is no user in the image"
    [[ $(stat -c %a:%U "$STAGE-busybox/var/log/lora-veyra-server") == 750:* ]] ||
        fail "the log directory of the image without systemd has the wrong mode"
}

# Copies the image onto this system, so that its init entries can be tested.
installImage() {
    local file
    for file in passwd group; do
        cat "$STAGE/etc/$file" >>/etc/$file
        rm "$STAGE/etc/$file"
    done
    cp -a "$STAGE/." /
    ln -sf /bin/busybox /sbin/start-stop-daemon
    mosquitto </dev/null >/root/broker.out 2>&1 &
}

startByInittab() {
    local log=/var/log/lora-veyra-server/lora-veyra-server.log
    bash -c "$(sed -n 's/^::respawn:/exec /p' /etc/inittab)" </dev/null >/root/daemon.out 2>&1 &
    for _ in {1..100}; do
        ! grep -qs "Start VeyraReceiveFunction" "$log" || break
        sleep 0.1
    done
    [[ $(stat -c %U "$log") == lora-veyra ]] || fail "the daemon does not run as its user"
}

# procd is not available here. These functions replace it and print their arguments.
checkProcd() {
    bash -euc 'procd_open_instance() { :; }
        procd_set_param() { echo "$@"; }
        procd_close_instance() { :; }
        . /etc/init.d/lora-veyra-server
        start_service' >/root/procd.out
    grep -qF "command $(sed -n 's/.*-x \(.*\) -- \(.*\)/\1 \2/p' /etc/inittab)" /root/procd.out ||
        fail "procd would start a different command than init"
}

[[ $1 == --entered ]] || enterRoot "$1"
prepare
bash -euxo pipefail "$SOURCE/build-commands"
checkStage
installImage
startByInittab
timeout 20 lora-veyra-watchdog || fail "the watchdog takes a healthy daemon for a blocked one"
checkProcd
bash -euxo pipefail "$SOURCE/gateway-commands"
"$SOURCE/packaging/integration/build-options.sh"
