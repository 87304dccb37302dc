#!/usr/bin/env bash
# Tests of the user that an image names: looked up in the image's own passwd and group files.
# shellcheck source=../cli/cli_lib.sh disable=SC2317
. "$(dirname "$0")/../cli/cli_lib.sh"
need busybox
need umoci
start_daemon

make_layout() {
    umoci init --layout "$work/layout"
    umoci new --image "$work/layout:latest"
    mkdir -p "$work"/tree/{bin,proc,dev,sys,tmp,etc,home/app}
    cp "$(command -v busybox)" "$work/tree/bin/busybox"
    for applet in sh id; do ln -sf busybox "$work/tree/bin/$applet"; done
    printf '%s\n' root:x:0:0::/root:/bin/sh app:x:1000:100::/home/app:/bin/sh \
        1000:x:0:0::/:/bin/sh bad:x:-1:0::/:/bin/sh >"$work/tree/etc/passwd"
    printf '%s\n' root:x:0: users:x:100: video:x:44:other,app mail:x:8:app >"$work/tree/etc/group"
    add_layer "$work/layout" "$work/tree"
    # shellcheck disable=SC2016
    umoci config --image "$work/layout:latest" --tag base --os linux --architecture "$architecture" \
        --config.workingdir / --config.env PATH=/bin --clear=config.cmd \
        --config.entrypoint /bin/sh --config.entrypoint -c \
        --config.cmd 'echo $(id -u) $(id -g) $(id -G) $HOME'
}
make_layout >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"
# image TAG USER
image() {
    umoci config --image "$work/layout:base" --tag "$1" --config.user "$2" >"$work/umoci.log" 2>&1 ||
        cat "$work/umoci.log"
}
zrun() { run zncctl run --os linux --progress none "$@"; }
runs_as() {
    image tested "$2"
    zrun --rm "$work/layout:tested"
    expect "$1" 0 "$3" ''
}
refused() {
    image tested "$2"
    zrun --rm "$work/layout:tested"
    check "$1" test "$status/$out" = 125/
    check "the error message is: $3" grep -qF -- "$3" "$work/err"
}
# Of a container: what containers of an image share stays for the next one.
no_bundle() { ! ls -d "$ZNC_BASE"/bundles/of-*/ >"$work/bundles" 2>&1; }

zrun --rm "$work/layout:base"
expect 'an image without a user runs as root' 0 '0 0 0 /root' ''
runs_as 'a name has its groups and its home directory' app '1000 100 100 8 44 /home/app'
runs_as 'a number that has an entry is that user, not the one of that name' 1000 \
    '1000 100 100 8 44 /home/app'
runs_as 'a number without an entry has group 0' 4711 '4711 0 0 /'
runs_as 'a group can be given' app:mail '1000 8 8 /home/app'
runs_as 'also as a number' 1000:4712 '1000 4712 4712 /home/app'
umoci config --image "$work/layout:base" --tag home --config.user app --config.env HOME=/tmp \
    >"$work/umoci.log" 2>&1
zrun --rm "$work/layout:home"
expect 'HOME of the image stays' 0 '1000 100 100 8 44 /tmp' ''

run zncctl storage gc -q
refused 'a name that does not exist is refused' nobody 'nobody'
check 'a refused user leaves no bundle' no_bundle
zrun --rm --user 4711 "$work/layout:tested"
expect 'the image runs with a user that is given' 0 '4711 0 0 /' ''
zrun --rm --user app "$work/layout:tested"
expect 'a user given by name has its home directory' 0 '1000 100 100 8 44 /home/app' ''
refused 'an image with an unknown user needs --user' nobody 'nobody'
refused 'a group that does not exist is refused' app:nogroup 'nogroup'
refused 'an entry with an invalid number is refused' bad 'bad'
refused 'a number that is too large is refused' 4294967296 4294967296
umoci config --image "$work/layout:base" --tag pathless --clear=config.env >"$work/umoci.log" 2>&1
# shellcheck disable=SC2016
zrun --rm "$work/layout:pathless" 'echo $PATH'
expect 'an image without PATH gets the usual one' 0 \
    /usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin ''
zrun --rm --entrypoint id "$work/layout:pathless" -u
expect 'programs are found in the default PATH' 0 0 ''
image tested nobody
run zncctl unpack --os linux --progress none --tag tested "$work/layout" "$work/bundle"
check 'unpack refuses it as well' test "$status/$out" = 1/
check 'the refused unpack leaves no bundle' test ! -e "$work/bundle"
mkdir "$work/bundle"
echo mine >"$work/bundle/note"
run zncctl unpack --flatten --os linux --progress none --tag tested "$work/layout" "$work/bundle"
check 'an existing directory is not changed' test "$(ls -A "$work/bundle")" = note
image tested app
run zncctl unpack --flatten --os linux --progress none --tag tested "$work/layout" "$work/other"
check 'unpack writes the user into the configuration' python3 -c '
import json, sys
process = json.load(open(sys.argv[1]))["process"]
assert process["user"] == {"uid": 1000, "gid": 100, "additionalGids": [44, 8]} or \
    process["user"] == {"uid": 1000, "gid": 100, "additionalGids": [8, 44]}, process
assert "HOME=/home/app" in process["env"], process' "$work/other/config.json"

# Files that are made to mislead whoever reads them.
hostile() {
    local name=$1
    rm -rf "$work/hostile"
    mkdir -p "$work/hostile/etc"
    "${@:2}"
    umoci config --image "$work/layout:base" --tag hostile --config.user app >"$work/umoci.log" 2>&1
    tar --create --format=ustar --owner=0 --group=0 --directory="$work/hostile" \
        --file="$work/hostile.tar" ./etc/passwd
    umoci raw add-layer --image "$work/layout:hostile" "$work/hostile.tar" >"$work/umoci.log" 2>&1
    zrun --rm "$work/layout:hostile"
    check "$name" test "$status/$out" = 125/
}
printf 'app:x:0:0::/:/bin/sh\n' >"$work/host-passwd"
link_outside() { ln -s "../../../../../../$work/host-passwd" "$work/hostile/etc/passwd"; }
large() { { head -c 2000000 /dev/zero | tr '\0' '#' && printf '\napp:x:0:0::/:/bin/sh\n'; } >"$work/hostile/etc/passwd"; }
fields() { printf 'app:x:0\napp\n:x:0:0::/:\n' >"$work/hostile/etc/passwd"; }
hostile 'a link does not lead to a file of the host' link_outside
hostile 'a file that is too large is refused' large
hostile 'incomplete entries name nobody' fields
finish
