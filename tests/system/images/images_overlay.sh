#!/usr/bin/env bash
# Tests with the overlay filesystem: each layer is stored once, images with one layer use it directly, several
# layers are stacked by an overlay device or flattened; the trees equal those unpacked by umoci.
# shellcheck source=images_lib.sh
. "$(dirname "$0")/images_lib.sh"
cd "$ZNC_TEST_CACHE"

stored() { find "$ZNC_BASE/layers" -mindepth 1 -maxdepth 1 | wc -l; }

for layout in debian plain; do
    check "a Debian system of one layer is unpacked ($layout)" unpack "$layout" base "$work/one"
    root=$(root_of "$work/one")
    check 'the root is in the layer store' test "${root%/*}" = "$ZNC_BASE/layers"
    check 'the tree equals that of umoci' same_tree "$layout" base "$root"
    check 'the root directory of the bundle is empty' rmdir "$work/one/rootfs"
    check 'flattening one layer uses the store as well' unpack "$layout" base "$work/flat1" --flatten
    check 'flattening one layer gives the same directory' test "$(root_of "$work/flat1")" = "$root"
    check 'nothing else is stored' test "$(stored)" = 1

    touch "$root/mark"
    check "an image of three layers is unpacked ($layout)" unpack "$layout" layers "$work/three"
    device=$(root_of "$work/three")
    check 'the root is an overlay device' test "${device%/*}" = /overlay
    check 'the overlay device is mounted' mountpoint -q "$device"
    check 'the common layer was not extracted again' test -e "$device/mark"
    rm "$root/mark"
    check 'the stack equals the tree of umoci' same_tree "$layout" layers "$device"
    check 'the overlay device cannot be written' not touch "$device/new"
    check 'each layer is stored once' test "$(stored)" = 3

    check 'a second device of the stack is refused' not unpack "$layout" layers "$work/again"
    check 'a refused unpack leaves no bundle' test ! -e "$work/again"

    check 'three layers are flattened' unpack "$layout" layers "$work/flat3" --flatten
    root=$(root_of "$work/flat3")
    check 'the root is in the flattened trees' test "${root%/*}" = "$ZNC_BASE/flattened"
    check 'the tree equals that of umoci' same_tree --in-place "$layout" layers "$root"
    printf 'x' >"$root/etc/passwd"
    check 'the layers are flattened again' unpack "$layout" layers "$work/flat3.again" --flatten
    check 'into the same directory' test "$(root_of "$work/flat3.again")" = "$root"
    check 'which is as it was, but for times of directories' \
        same_tree --untimed-directories "$layout" layers "$root"

    check 'the bundle of the stack is deleted' driver delete "$work/three"
    check 'the device stays' mountpoint -q "$device"
    umount "$device"
    check 'a reboot leaves the directory of the device' test -d "$device"
    check 'which does not keep the image from being unpacked' unpack "$layout" layers "$work/rebooted"
    check 'the device is mounted again' mountpoint -q "$device"
    check 'the remounted device equals the tree of umoci' same_tree "$layout" layers "$device"
    umount "$device"
    rm -rf "$work"/{one,three,flat1,flat3,flat3.again,rebooted,storage}
done

# An image built with the same step twice contains the same layer twice; it is stacked only once.
mkdir "$work"/{lower,upper}
printf 'lower\n' | tee "$work/lower/both" >"$work/lower/low"
printf 'upper\n' >"$work/upper/both"
for layer in lower upper; do
    tar --format=ustar --owner=0 --group=0 -C "$work/$layer" -cf "$work/$layer.tar" .
done
repeated=$work/repeated
{
    umoci init --layout "$repeated"
    umoci new --image "$repeated:twice"
    for layer in lower upper lower; do
        umoci raw add-layer --image "$repeated:twice" "$work/$layer.tar"
    done
    umoci config --image "$repeated:twice" --os linux --architecture amd64
} >"$work/umoci.log" 2>&1
check 'an image with one layer twice is unpacked' unpack "$repeated" twice "$work/twice"
check 'the layer is stored once' test "$(stored)" = 2
check 'the upper copy of a repeated layer is on top' grep -qx lower "$(root_of "$work/twice")/both"
check 'the rest is there' grep -qx lower "$(root_of "$work/twice")/low"
finish
