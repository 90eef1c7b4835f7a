#!/usr/bin/env bash
# run.sh: runs every command of docs/integration.md, then build-options.sh, in a clean Debian root
# without git. The root has a network while its packages are installed, and the loopback interface
# alone afterwards.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/../.."

if [[ $(id -u) -ne 0 ]]; then
    exec sudo "$PWD/packaging/integration/run.sh"
fi
work=$(mktemp --directory --tmpdir lora-veyra-integration.XXXXXXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT

# commands FROM TO: the fenced commands of the guide between two of its lines.
commands() {
    awk -v from="$1" -v to="$2" 'index($0, from) == 1 { within = 1 } index($0, to) == 1 { within = 0 }
        /^```/ { fenced = /^```sh/; next }
        within && fenced' docs/integration.md
}

mkdir "$work/src"
tar -c --exclude='./build*' --exclude=./.git . | tar -xC "$work/src"
commands '## Dependencies' '## Build' >"$work/src/install-commands"
commands '## Build' '## On the gateway' >"$work/src/build-commands"
commands '## On the gateway' '## A client' >"$work/src/gateway-commands"

echo "Making a Debian root with the packages that the guide names"
# shellcheck disable=SC2016 # mmdebstrap's shell expands $1
packaging/debian-root.sh --quiet --variant=minbase --skip=cleanup/apt \
    --include=busybox,ca-certificates,systemd \
    --customize-hook="mkdir '$work/root/source tree' && cp -R '$work/src/.' '$work/root/source tree'" \
    --customize-hook='chroot "$1" env DEBIAN_FRONTEND=noninteractive APT_CONFIG= \
        sh -e "/source tree/install-commands" >/dev/null' \
    "$work/root"
unshare --mount --net --pid --uts --ipc --fork --kill-child --propagation private \
    packaging/integration/in-root.sh "$work/root"
