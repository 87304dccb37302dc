# images_lib.sh - sourced by the images_*.sh tests.
#
# Needs UNPACK_DRIVER, the program to test, and ZNC_TEST_CACHE, the directory where images_fixture.sh created
# the layouts (or ZNC_TEST_CACHE_DEFAULT). Images are unpacked to a temporary directory next to them.
# shellcheck shell=bash
set -euo pipefail
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"

: "${UNPACK_DRIVER:?the program to test}"
ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-${ZNC_TEST_CACHE_DEFAULT:?the directory of the layouts}}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d "$ZNC_TEST_CACHE/work.XXXXXX")
export ZNC_BASE=$work/storage

# Unmount overlay devices first, because they keep their directories busy.
clean_up() {
    local device
    for device in /overlay/*; do
        if mountpoint -q "$device"; then umount "$device"; fi
    done
    rm -rf "$work"
}
trap clean_up EXIT

driver() { "$UNPACK_DRIVER" "$@"; }

# reference TAG: unpacks the image of that tag with umoci; sets `expected`. All layouts contain the same
# images, so one reference serves for all.
reference() {
    expected=$work/expected.$1
    [[ -e $expected ]] || umoci raw unpack --image "debian:$1" "$expected" >"$work/umoci.log" 2>&1 ||
        cat "$work/umoci.log"
}

# same_tree [--OPTION] LAYOUT TAG ROOT: an option is passed to images_compare.py.
same_tree() {
    local options=()
    if [[ $1 == --* ]]; then
        options=("$1")
        shift
    fi
    reference "$2"
    python3 "$here/images_compare.py" "${options[@]}" "$1" "$2" "$expected" "$3"
}

# unpack LAYOUT TAG BUNDLE [OPTION...]
unpack() {
    local layout=$1 tag=$2 bundle=$3
    shift 3
    driver unpack --os linux --arch amd64 --tag "$tag" "$@" "$layout" "$bundle"
}

# The root path in a bundle's configuration.
root_of() {
    python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["root"]["path"])' "$1/config.json"
}

finish() { finish_checks; }
