#!/usr/bin/env bash
# Imports a complete Debian system with hard links, owners and set-ID programs: as stored by umoci, as an
# archive, and as the directory that it was made from.
# shellcheck source=cli_import_lib.sh
. "$(dirname "$0")/cli_import_lib.sh"
need umoci
need zstd

cache=${ZNC_TEST_CACHE:-${ZNC_TEST_CACHE_DEFAULT:?the directory of the layouts}}
cd "$cache" || exit 1

# diff_ids TAG: prints the diff IDs of an image of $layout.
diff_ids() {
    zncctl image inspect "$layout" | python3 -c 'import json, sys
name = "org.opencontainers.image.ref.name"
for image in json.load(sys.stdin):
    if image["annotations"][name] == sys.argv[1]:
        print(*image["RootFS"]["diff_ids"])' "$1"
}

ways=(layered)
quietly umoci raw unpack --image debian:layers "$work/expected"
imports 'three layers' oci:debian:layers
same 'three layers' "$work/expected" --untimed-directories
rm -rf "$work/expected"
check 'hard links are copied' test "$(losses hardlink-copied)" -gt 0
check 'owners, set-id bits and devices are lost' test "$(losses owner)" -gt 0 -a "$(losses set-id)" -gt 0 -a \
    "$(losses device)" -gt 0
check 'nothing else but volumes is' test "$(losses '')" = \
    "$(($(losses owner) + $(losses set-id) + $(losses device) + $(losses volume)))"

# umoci rounds times, so these two can only be compared with each other.
imports 'the directory' root
takes 'the directory'
directory=$(diff_ids "$tag")
tar --format=gnu -C root -cf - . | zstd -q1 >"$work/root.bin"
imports 'an archive of it' "$work/root.bin"
check 'the layers have the same digests' test "$(diff_ids "$tag")" = "${directory:-none}"

cd / || exit 1
finish
