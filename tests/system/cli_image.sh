#!/usr/bin/env bash
# From an image made by other tools to a running container.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci

layout=$work/layout
# add_layer DIR
add_layer() {
    tar --create --format=ustar --owner=0 --group=0 --directory="$1" --file="$1.tar" .
    umoci raw add-layer --image "$layout:latest" "$1.tar"
}
{
    umoci init --layout "$layout"
    umoci new --image "$layout:latest"
    mkdir -p "$work"/lower/{bin,proc,dev,sys} "$work/upper/etc"
    cp "$(command -v busybox)" "$work/lower/bin/busybox"
    ln -s busybox "$work/lower/bin/cat"
    echo 'from the second layer' >"$work/upper/etc/greeting"
    add_layer "$work/lower"
    add_layer "$work/upper"
    umoci config --image "$layout:latest" --os linux --architecture amd64 --config.workingdir / \
        --config.entrypoint /bin/cat --config.cmd /etc/greeting
} >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"

run zncctl image inspect "$layout"
check 'image inspect prints a JSON array without a daemon' test "$status/${out:0:1}/$err" = '0/[/'
check 'it names the operating system' grep -q '"linux"' "$work/out"
run zncctl unpack "$layout" "$work/bundle"
check 'an image for another system is not unpacked' test "$status/$out" = 1/
check 'and leaves no bundle' test ! -e "$work/bundle"
run zncctl unpack --os linux --tag other "$layout" "$work/bundle"
check 'a tag that is not there is not unpacked' test "$status/$out" = 1/

start_daemon
run zncctl unpack --os linux "$layout" "$work/bundle"
expect 'unpack prints nothing' 0 '' ''
check 'the bundle has a configuration' test -s "$work/bundle/config.json"
run zncctl unpack --os linux "$layout" "$work/bundle"
fails_with 'a bundle is not unpacked over' 1 'OCI bundle rootfs already exists'
run zncctl unpack --os linux --flatten "$layout" "$work/flat"
expect 'unpack --flatten prints nothing' 0 '' ''
check 'the flattened tree holds both layers' test -e "$ZNC_BASE"/flattened/*/bin/busybox -a \
    -e "$ZNC_BASE"/flattened/*/etc/greeting

umoci init --layout "$work/damaged" >>"$work/umoci.log" 2>&1
umoci new --image "$work/damaged:latest" >>"$work/umoci.log" 2>&1
printf '%01024d' 7 >"$work/damaged.tar"
umoci raw add-layer --image "$work/damaged:latest" "$work/damaged.tar" >>"$work/umoci.log" 2>&1
mkdir "$work/beside"
run zncctl unpack --os linux "$work/damaged" "$work/beside"
fails_with 'a damaged layer is not unpacked' 1 'A layer of the image is damaged or a path is too long'

for bundle in bundle flat; do
    run zncctl create "of-$bundle" "$work/$bundle"
    expect "create from $bundle" 0 '' ''
    run zncctl start "of-$bundle"
    expect "the program of $bundle sees the second layer" 0 'from the second layer' ''
    run zncctl delete "of-$bundle"
    expect "delete of $bundle" 0 '' ''
done

finish
