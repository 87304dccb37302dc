#!/usr/bin/env bash
# Tests of images without the overlay filesystem: each container has a separate bundle.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci

bundles() { find "$ZNC_BASE/bundles" -mindepth 1 -maxdepth 1 -not -name .lock | wc -l; }

make_image "$work/layout"
start_daemon
rmdir /overlay # created by the daemon
run zncctl info
check 'there is no overlay filesystem' grep -qx 'overlay     no' "$work/out"
run zncctl run --rm --os linux --progress none "$work/layout"
expect 'run of an image' 0 'from the second layer' ''
check 'takes its bundle away' test "$(bundles)" = 0
run zncctl run --name one --keep --os linux --progress none "$work/layout"
expect 'run --keep' 0 'from the second layer' ''
run zncctl run --name two -d --os linux --progress none "$work/layout"
expect 'a second container of the image runs' 0 two ''
run zncctl wait two
expect 'wait prints their exit codes' 0 0 ''
check 'each container has a bundle of its own' test "$(bundles)" = 2
run zncctl storage gc
expect 'storage gc removes no bundle in use' 0 '' ''
run zncctl delete one two
expect 'the containers can be deleted' 0 $'one\ntwo' ''
check 'the bundles are deleted with the containers' test "$(bundles)" = 0
zncctl import -q "$work/layout" stored
run zncctl run --name one --network none --progress none stored
expect 'run of an image of the store' 0 'from the second layer' ''
run zncctl rmi stored
check 'which is not removed while its container exists' test "$status/$(error_line)" = \
    '3/stored: it is used by the containers one'
zncctl delete -q one
run zncctl rmi stored
check 'the bundle can be removed after its container' test "$status" = 0
mkdir -p /run/zarnel/containers/stale
run zncctl storage gc
expect 'storage gc removes records of what is no more' 0 'record stale' ''
check 'the stale record is removed' test ! -e /run/zarnel/containers/stale
run zncctl run --rm --os linux --progress none "$work/layout:other"
fails_with 'an image that is not there leaves nothing' 125 \
    'Specified platform or architecture or tag not found'
check 'no bundle either' test "$(bundles)" = 0

finish
