#!/usr/bin/env bash
# Tests without the overlay filesystem: every image is unpacked into the bundle, equal to the result of umoci.
# Run it where /overlay does not exist.
# shellcheck source=images_lib.sh
. "$(dirname "$0")/images_lib.sh"
cd "$ZNC_TEST_CACHE"

check 'there is no overlay filesystem' test ! -e /overlay
for layout in debian copied plain; do
    bundle=$work/bundle
    check "a Debian system of one layer is unpacked ($layout)" unpack "$layout" base "$bundle"
    check 'the root is in the bundle' test "$(root_of "$bundle")" = rootfs
    check 'the tree equals that of umoci' same_tree "$layout" base "$bundle/rootfs"
    check 'the bundle is deleted' driver delete "$bundle"
    check 'nothing of the bundle is left' test ! -e "$bundle"

    check "an image of three layers is unpacked ($layout)" unpack "$layout" layers "$bundle"
    check 'the tree equals that of umoci' same_tree --in-place "$layout" layers "$bundle/rootfs"
    check 'a bundle is not unpacked over' not unpack "$layout" layers "$bundle"
    check 'the existing bundle has not changed' same_tree --in-place "$layout" layers "$bundle/rootfs"

    # Verify that the comparison detects differences.
    printf x >>"$bundle/rootfs/etc/passwd"
    check 'a changed file is noticed' not same_tree --in-place "$layout" layers "$bundle/rootfs"
    check 'the bundle is deleted' driver delete "$bundle"
done
check 'flattening is refused' not unpack debian base "$work/bundle" --flatten
check 'the refused unpack leaves no bundle' test ! -e "$work/bundle"
check 'nothing was stored' test ! -e "$ZNC_BASE"
finish
