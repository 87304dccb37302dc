#!/usr/bin/env bash
# demo.sh - demonstrates the main features, as root: installs dependencies, builds, makes an image
# of two layers with standard tools, starts the daemon, and creates, runs and deletes a container.
# Prints every command with its output. Removes everything afterwards except the build.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$PWD/build/demo/bin

if [[ $(id -u) -ne 0 ]]; then
    printf 'demo.sh: containers need namespaces and mounts; run it as root\n' >&2
    exit 1
fi
scripts/install-deps.sh build demo

printf 'building ...\n'
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZNC_BUILD_TESTS=OFF &&
    cmake --build build/demo --target zncctl zncd; } >"$log" 2>&1; then
    cat "$log"
    exit 1
fi
rm -f "$log"

if "$bin/zncctl" ping >/dev/null 2>&1; then
    printf 'demo.sh: a daemon is running; stop it first\n' >&2
    exit 1
fi

work=$(mktemp -d /tmp/zncontainer-demo.XXXXXX)
cd "$work"
export ZNC_BASE=$work/storage PATH=$bin:$PATH
had_overlay='' had_run='' devices_before='' daemon=''
if [[ -d /run/zarnel ]]; then had_run=1; fi
if [[ -d /overlay ]]; then
    had_overlay=1
    devices_before=$(ls -A /overlay)
fi

# The daemon ends its containers itself. The overlay device and the layers of an unpacked image
# normally stay; the demo removes them.
clean_up() {
    local status=$? device
    trap - EXIT INT TERM
    cd /
    if [[ -n $daemon ]]; then
        kill -s TERM "$daemon" && wait "$daemon" || status=1
    fi
    for device in /overlay/*; do
        [[ -d $device ]] || continue
        grep -qxF "${device##*/}" <<<"$devices_before" && continue
        umount -l "$device"
        rm -f "$device/.zn-stack"
        rmdir "$device" || status=1
    done
    [[ -n $had_overlay || ! -d /overlay ]] || rmdir /overlay || status=1
    [[ -n $had_run ]] || rm -rf /run/zarnel
    rm -rf "$work"
    exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# show COMMAND...: prints the command as typed, then its output.
show() {
    printf '\n$ %s\n' "$*"
    "$@"
}

# The image: busybox in the lower layer, the program of this demo in the upper one.
make_image() {
    mkdir -p base/{bin,dev,proc,sys,tmp} own/srv
    cp "$(command -v busybox)" base/bin/busybox
    local applet
    for applet in cat hostname ls sh sleep; do ln -s busybox "base/bin/$applet"; done
    cat >own/srv/hello <<'SH'
#!/bin/sh
echo "hello from $(hostname), process $$"
cat /srv/text
exec sleep 1000
SH
    chmod +x own/srv/hello
    echo 'this line is in the second layer' >own/srv/text
    umoci init --layout image
    umoci new --image image:latest
    local layer
    for layer in base own; do
        tar --create --format=ustar --owner=0 --group=0 --directory=$layer --file=$layer.tar .
        umoci raw add-layer --image image:latest $layer.tar
    done
    umoci config --image image:latest --os linux --architecture "$(dpkg --print-architecture)" \
        --config.workingdir / --config.env PATH=/bin --config.cmd /srv/hello
}

speaks() { zncctl logs web | grep -q layer; }
# until_true WHAT COMMAND...: repeats the command for up to 10 seconds until it succeeds.
until_true() {
    local what=$1 i
    shift
    for ((i = 0; i < 100; i++)); do
        "$@" >/dev/null 2>&1 && return
        sleep 0.1
    done
    printf 'demo.sh: %s: not within 10 seconds\n' "$what" >&2
    return 1
}

make_image >umoci.log 2>&1 || { cat umoci.log >&2 && exit 1; }

printf '\n$ zncd &\n'
zncd &
daemon=$!
until_true 'the daemon answers' zncctl ping

show zncctl ping
show zncctl image inspect ./image
show zncctl unpack --os linux ./image bundle
show ls bundle
show zncctl create web bundle
show zncctl state web
show zncctl start web
until_true 'the program speaks' speaks
show zncctl logs web
show zncctl state web
show zncctl list
show zncctl inspect web
show zncctl kill -s TERM web
show zncctl wait web
show zncctl list
show zncctl delete web
show zncctl list
printf '\n$ kill -TERM %d (zncd); it ends what is left and exits 0\n' "$daemon"
