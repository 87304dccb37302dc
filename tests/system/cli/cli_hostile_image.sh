#!/usr/bin/env bash
# Tests with images that try to escape: each is given to run, unpack, image check, image inspect and import.
# Files of the host and the trees of other images must not change, no command may block, and each refusal is
# one line.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"
need busybox
need jq
need script

sum_of() { sha256sum "$1" | cut -d ' ' -f 1; }
# add_blob LAYOUT FILE: stores it and prints its digest.
add_blob() {
    local digits
    digits=$(sum_of "$2")
    cp "$2" "$1/blobs/sha256/$digits"
    printf 'sha256:%s' "$digits"
}
# described LAYOUT FILE TYPE: stores it and prints its descriptor.
described() {
    printf '{"mediaType":"application/vnd.oci.image.%s","digest":"%s","size":%s}' "$3" \
        "$(add_blob "$1" "$2")" "$(stat -c %s "$2")"
}
write_index() { printf '{"schemaVersion":2,"manifests":[%s]}' "$2" >"$1/index.json"; }

# make_layout DIR SECTION [TREE]: a layout of one image for Linux with this "config".
make_layout() {
    local dir=$1 section=$2 tree=${3:-$work/tree} layer config
    mkdir -p "$dir/blobs/sha256"
    printf '{"imageLayoutVersion":"1.0.0"}' >"$dir/oci-layout"
    tar --create --format=ustar --owner=0 --group=0 --directory="$tree" --file="$work/layer.tar" .
    layer=$(described "$dir" "$work/layer.tar" layer.v1.tar)
    printf '{"architecture":"%s","os":"linux","config":%s,"rootfs":{"type":"layers","diff_ids":["sha256:%s"]}}' \
        "$architecture" "$section" "$(sum_of "$work/layer.tar")" >"$work/config"
    config=$(described "$dir" "$work/config" config.v1+json)
    printf '{"schemaVersion":2,"config":%s,"layers":[%s]}' "$config" "$layer" >"$work/manifest"
    write_index "$dir" "$(described "$dir" "$work/manifest" manifest.v1+json)"
}
manifest_of() { jq -r '.manifests[0].digest' "$1/index.json"; }
blob_of() { printf '%s/blobs/%s' "$1" "${2/://}"; }
config_of() { jq -r .config.digest "$(blob_of "$1" "$(manifest_of "$1")")"; }

# Everything that must not change.
state_of_host() {
    find "$work/victim" "$ZNC_BASE/bundles" "$ZNC_BASE/layers" -printf '%p %m %s %T@ %l\n' | sort
}

# shellcheck disable=SC2317 # called by check
one_line() { [[ $(grep -c '^zncctl: error: ' "$work/err") = 1 && -z $(printf '%s' "$err" | tr -d '[:print:]\n') ]]; }

# refused NAME LAYOUT: checks that every command refuses the layout with a one-line error, and that nothing
# changes.
refused() {
    local name=$1 layout=$2 before command
    before=$(state_of_host)
    for command in "run --os linux $layout" "unpack --os linux $layout $work/refused" \
        "image check $layout" "image inspect $layout" "import $layout $work/refused"; do
        # shellcheck disable=SC2086
        run timeout 20 "$ZNCCTL" $command
        check "$name: refused by ${command%% -*}" test "$status" = 1 -o "$status" = 125
        check "$name: with one line by ${command%% -*}" one_line
    done
    check "$name: no bundle is left" test ! -e "$work/refused"
    check "$name: nothing on the host changes" test "$(state_of_host)" = "$before"
}

mkdir -p "$work"/tree/{bin,proc,dev,sys,tmp,var/tmp} "$work/victim/kept"
echo bait >"$work/victim/kept/file"
cp "$(command -v busybox)" "$work/tree/bin/busybox"
chmod 1777 "$work/tree/tmp" "$work/tree/var/tmp"
plain='{"Entrypoint":["/bin/busybox"],"Cmd":["echo","plain"]}'
make_layout "$work/good" "$plain"
start_daemon
run zncctl run --rm --os linux --progress none "$work/good"
expect 'a plain image runs' 0 plain ''
good=$(ls -d "$ZNC_BASE"/bundles/image-*)
cp "$good/config.json" "$work/good-config"

# ---------------------------------------------------------------- mounts
make_layout "$work/mounts" "{\"Entrypoint\":[\"/bin/busybox\"],
    \"Cmd\":[\"cat\",\"/host/kept/file\"],
    \"Volumes\":{\"$work/victim:/host:rbind,dev,suid,rw\":{},\"/data\":{},\"x:/p::proc\":{}}}"
run zncctl run --rm --os linux --progress none "$work/mounts"
check 'run mounts nothing of the host for an image' test "$status/$out" = 1/
check 'run prints which mounts are left out' grep -qxF \
    "zncctl: warning: $work/mounts: the image's mount of the host's $work/victim at /host is left out; --allow-image-mounts keeps it" \
    "$work/err"
check 'a mount of a kernel file system is left out, too' grep -q 'mount of proc at /p is left out$' "$work/err"
run zncctl unpack --os linux --progress none --flatten "$work/mounts" "$work/unpacked"
check 'unpack leaves it out of config.json' test "$status/$(jq -c '[.mounts[]|.destination]' \
    "$work/unpacked/config.json")" = '0/[""]'
check 'unpack prints which mounts are left out' test "$(grep -c '^zncctl: warning: ' "$work/err")" = 2
run zncctl image check "$work/mounts"
check 'image check lists what the image asks for' grep -qxF \
    "  asks for a mount of the host's $work/victim at /host" "$work/out"
run zncctl run --rm --os linux --progress none --allow-image-mounts "$work/mounts"
check '--allow-image-mounts mounts it' test "$status/$out" = 0/bait
allowed=$(ls -d "$ZNC_BASE"/bundles/*-mounts)
check 'never with dev, suid or rbind' test "$(jq -c '[.mounts[]|select(.destination=="/host")|.options[]]' \
    "$allowed/config.json")" = '["rw","nosuid","nodev"]'
run zncctl run --rm --os linux --progress none "$work/mounts"
check 'a plain run takes no bundle that was allowed more' test "$status/$out" = 1/

# ---------------------------------------------------------------- priority
make_layout "$work/urgent" '{"Entrypoint":["/bin/busybox"],"Cmd":["cut","-d"," ","-f","19","/proc/self/stat"],
    "Labels":{"com.quenmark.zarnel.rtp.RtpPriority":"0x0"}}'
run zncctl run --rm --os linux --progress none "$work/urgent"
check 'an image has no urgent priority' test "$status/$out" = 0/0
check 'run prints that the priority is reduced' grep -q "^zncctl: warning: .*the image's priority 0x0 is more urgent" "$work/err"
make_layout "$work/twice" '{"Cmd":["/bin/busybox"],"Labels":{"com.quenmark.zarnel.rtp.rtpPriority":"100",
    "com.quenmark.zarnel.rtp-rtppriority":"0"}}'
run zncctl run --rm --os linux "$work/twice"
check 'a setting that is there twice is refused' test "$status" = 125
check 'a duplicate setting gives one line' one_line
make_layout "$work/types" '{"Cmd":["/bin/busybox",5]}'
run zncctl unpack --os linux "$work/types" "$work/refused"
check 'a command that is not text is refused' test "$status/$(error_line)" = \
    "1/$work/types: its configuration is refused: \"Cmd\" contains an element that is not a string"

# ---------------------------------------------------------------- digests as paths
digits=$(printf 'a%.0s' {1..64})
for digest in "sha256:$digits/../../../../../../../../$work/victim" 'sha256:..' "sha256:${digits^^}" \
    "..:$digits" "sha256:../../../../..$work/victim"; do
    cp -r "$work/good" "$work/path"
    jq -c --arg d "$digest" '.manifests[0].digest=$d' "$work/good/index.json" >"$work/path/index.json"
    refused "the digest ${digest:0:20}" "$work/path"
    rm -r "$work/path"
done
make_layout "$work/path" "$plain"
manifest=$(blob_of "$work/path" "$(manifest_of "$work/path")")
jq -c --arg d "sha256:$digits/../../../../victim" '.layers[0].digest=$d' "$manifest" >"$work/manifest"
write_index "$work/path" "$(described "$work/path" "$work/manifest" manifest.v1+json)"
run zncctl run --rm --os linux "$work/path"
check 'a layer whose digest is a path is refused' test "$status" = 125
check 'the error for the digest is one line' one_line

# ---------------------------------------------------------------- duplicate keys
cp -r "$work/mounts" "$work/duplicate-keys"
jq -c --arg d "$(manifest_of "$work/good")" '.manifests[0] |= {Digest: .digest} + . + {digest: $d}' \
    "$work/mounts/index.json" >"$work/duplicate-keys/index.json"
cp "$(blob_of "$work/good" "$(manifest_of "$work/good")")" "$work/duplicate-keys/blobs/sha256/"
refused 'two digests in the index' "$work/duplicate-keys"
check 'the file and the key are named' grep -q 'index.json: duplicate key "digest"$' "$work/err"
run zncctl run --rm --os linux --progress none "$work/good"
expect 'the other image still runs' 0 plain ''
check 'the configuration of the other image is unchanged' cmp -s "$good/config.json" "$work/good-config"

make_layout "$work/duplicate-keys2" "$plain"
sed 's/"config":/"Config":{},"config":/' "$(blob_of "$work/duplicate-keys2" "$(manifest_of "$work/duplicate-keys2")")" >"$work/manifest"
write_index "$work/duplicate-keys2" "$(described "$work/duplicate-keys2" "$work/manifest" manifest.v1+json)"
refused 'two configurations in the manifest' "$work/duplicate-keys2"
make_layout "$work/duplicate-keys3" '{"Cmd":["/bin/busybox"],"Volumes":{},"volumes":{"/:/host":{}}}'
refused 'two lists of volumes in the configuration' "$work/duplicate-keys3"
make_layout "$work/duplicate-keys4" "$plain"
printf '{"imageLayoutVersion":"1.0.0","ImageLayoutVersion":"1.0.0"}' >"$work/duplicate-keys4/oci-layout"
refused 'two versions in oci-layout' "$work/duplicate-keys4"

# ---------------------------------------------------------------- special files
for file in index manifest config layer; do
    rm -rf "$work/fifo"
    make_layout "$work/fifo" "$plain"
    manifest=$(blob_of "$work/fifo" "$(manifest_of "$work/fifo")")
    case $file in
    index) path=$work/fifo/index.json ;;
    manifest) path=$manifest ;;
    config) path=$(blob_of "$work/fifo" "$(config_of "$work/fifo")") ;;
    layer) path=$(blob_of "$work/fifo" "$(jq -r '.layers[0].digest' "$manifest")") ;;
    esac
    rm "$path"
    mkfifo "$path"
    # A different image, so that it has no bundle yet.
    [[ $file = layer ]] && jq -c '.annotations={"a":"b"}' "$manifest" >"$work/manifest" &&
        write_index "$work/fifo" "$(described "$work/fifo" "$work/manifest" manifest.v1+json)"
    for command in "run --os linux $work/fifo" "unpack --os linux $work/fifo $work/refused" \
        "image check $work/fifo" "image inspect $work/fifo" "image ls $work/fifo" \
        "import $work/fifo $work/imported-fifo"; do
        # shellcheck disable=SC2086
        run timeout 20 "$ZNCCTL" $command
        check "a FIFO for the $file does not hold up ${command%% -*}" test "$status" != 124
    done
    check "no bundle is made of it" test ! -e "$work/refused"
done

# ---------------------------------------------------------------- wrong sizes
make_layout "$work/holes" "$plain"
manifest=$(blob_of "$work/holes" "$(manifest_of "$work/holes")")
jq -c '.annotations={"holes":"yes"}' "$manifest" >"$work/manifest"
write_index "$work/holes" "$(described "$work/holes" "$work/manifest" manifest.v1+json)"
layer=$(blob_of "$work/holes" "$(jq -r '.layers[0].digest' "$manifest")")
said="bytes, not $(stat -c %s "$layer")\$"
truncate -s 1E "$layer"
# not_read WHAT: no command reads the file of another size in $work/holes to its end.
not_read() {
    for command in "run --os linux $work/holes" "unpack --os linux $work/holes $work/refused" \
        "image check $work/holes" "image inspect $work/holes"; do
        # shellcheck disable=SC2086
        run timeout 20 "$ZNCCTL" $command
        check "${command%%"$work"*}does not read a $1 of another size" test "$status" = 1 -o "$status" = 125
        check 'the wrong size is named in one line' test "$(grep -c "$said" "$work/err" "$work/out" |
            cut -d : -f 2 | sort | tr '\n' ' ')" = '0 1 '
    done
}
not_read layer
make_layout "$work/holes" "$plain"
manifest=$(blob_of "$work/holes" "$(manifest_of "$work/holes")")
jq -c '.annotations={"holes":"yes"} | del(.layers[0].size)' "$manifest" >"$work/manifest"
write_index "$work/holes" "$(described "$work/holes" "$work/manifest" manifest.v1+json)"
truncate -s 1E "$(blob_of "$work/holes" "$(jq -r '.layers[0].digest' "$manifest")")"
said='the size of blob sha256:[0-9a-f]* is missing$'
not_read layer
make_layout "$work/holes" "$plain"
manifest=$(blob_of "$work/holes" "$(manifest_of "$work/holes")")
said="bytes, not $(stat -c %s "$manifest")\$"
truncate -s 1E "$manifest"
not_read manifest
make_layout "$work/again" "$plain"
manifest=$(blob_of "$work/again" "$(manifest_of "$work/again")")
config=$(blob_of "$work/again" "$(config_of "$work/again")")
layer=$(blob_of "$work/again" "$(jq -r '.layers[0].digest' "$manifest")")
printf x >>"$layer"
jq -c '.rootfs.diff_ids += .rootfs.diff_ids' "$config" >"$work/config"
jq -c --argjson c "$(described "$work/again" "$work/config" config.v1+json)" '.layers += .layers | .config = $c' \
    "$manifest" >"$work/manifest"
write_index "$work/again" "$(described "$work/again" "$work/manifest" manifest.v1+json)"
run zncctl image check "$work/again"
check 'image check says once what is wrong with a layer that is there twice' \
    test "$status/$(grep -c 'refused: blob' "$work/out")" = 1/1

# ---------------------------------------------------------------- messages while waiting
jq -c '.annotations={"waits":"yes"}' "$(blob_of "$work/good" "$(manifest_of "$work/good")")" >"$work/manifest"
cp -r "$work/good" "$work/waits"
write_index "$work/waits" "$(described "$work/waits" "$work/manifest" manifest.v1+json)"
name=image-$(manifest_of "$work/waits" | cut -d : -f 2)
exec 9>"$ZNC_BASE/bundles/.lock-$name"
flock 9
"$ZNCCTL" run --rm --os linux --progress none "$work/waits" >"$work/waits.out" 2>"$work/waits.err" 9>&- &
waiter=$!
check 'a run that waits for another says so' eventually grep -q 'waiting for it$' "$work/waits.err"
run zncctl run --rm --os linux --progress none "$work/good"
expect 'other images can be run during the wait' 0 plain ''
kill -INT "$waiter" 2>/dev/null || kill "$waiter"
kill "$waiter" 2>/dev/null
wait "$waiter" 2>/dev/null
check 'the wait can be interrupted' test "$?" -ge 128
flock -u 9
exec 9>&-
rm -f "$ZNC_BASE/bundles/.lock-$name"
mv "$ZNC_BASE/bundles" "$work/bundles"
touch "$ZNC_BASE/bundles"
run zncctl run --rm --os linux "$work/good"
check 'run fails if the lock file cannot be created' test "$status" = 125
rm "$ZNC_BASE/bundles"
mv "$work/bundles" "$ZNC_BASE/bundles"

# ---------------------------------------------------------------- incomplete bundles
rm "$good/.complete-2"
jq '.mounts=[{"source":"/","destination":"/host","options":["bind"]}]' "$work/good-config" >"$good/config.json"
run zncctl run --rm --os linux --progress none "$work/good"
check 'an unfinished bundle is made again' test "$status/$out/$(jq -c .mounts \
    "$good/config.json")" = '0/plain/[]'

# ---------------------------------------------------------------- ids
before=$(state_of_host)
for id in .. . a/../b "../../victim" "$(printf 'x%.0s' {1..256})"; do
    run zncctl run --rm --name "$id" --os linux "$work/good"
    check "an id that is none is refused (${#id} bytes)" test "$status" = $((${#id} > 255 ? 125 : 64))
    check 'the error for the id is one line' one_line
    run zncctl delete "$id"
    check 'delete refuses the id' test "$status" -ne 0
done
check 'nothing on the host changed' test "$(state_of_host)" = "$before"

# ---------------------------------------------------------------- sticky directories
make_layout "$work/sticky" '{"Entrypoint":["/bin/busybox"],"Cmd":["stat","-c","%a","/tmp","/var/tmp"]}'
run zncctl run --rm --os linux --progress none "$work/sticky"
expect 'directories of an image keep their sticky bit' 0 $'1777\n1777' ''
check 'the shared layers are left alone' test -z "$(find "$ZNC_BASE/layers" -perm /1000)"
run zncctl unpack --os linux --progress none --flatten "$work/sticky" "$work/sticky-bundle"
zncctl create sticky "$work/sticky-bundle"
run zncctl start --attach sticky
expect 'sticky bits are kept in a bundle that is created from' 0 $'1777\n1777' ''
zncctl delete -q sticky
run zncctl import "$work/sticky" "$work/imported:latest"
run zncctl run --rm --os linux --progress none "$work/imported"
expect 'sticky bits are kept in an imported image' 0 $'1777\n1777' ''
jq '.annotations["zncontainer.sticky-directories"]="/../../victim:/dev/../..:/:relative:/none"' \
    "$work/sticky-bundle/config.json" >"$work/forged"
cp "$work/forged" "$work/sticky-bundle/config.json"
before=$(state_of_host)
run zncctl create forged "$work/sticky-bundle"
expect 'a forged list of directories changes nothing' 0 '' ''
check 'nothing changes on the host' test "$(state_of_host)" = "$before"
zncctl delete -q forged

# ---------------------------------------------------------------- config.json
make_bundle "$work/bundle" /bin/busybox true
cp "$work/bundle/config.json" "$work/bundle-config"
jq '.mounts=[{"source":"/tmp","destination":"/m","type":"bind","options":[5,"ro"]}]' "$work/bundle-config" \
    >"$work/bundle/config.json"
for command in "create list $work/bundle" "run --name list --bundle $work/bundle"; do
    # shellcheck disable=SC2086
    run zncctl $command
    check "${command%% *} refuses an option that is no text" test "$status" -ne 0
    check 'the wrong element is named' grep -q 'mounts\[0\]\.options\[0\]: expected a string, found a number$' "$work/err"
done
run zncctl config check "$work/bundle"
check 'config check refuses it, too' grep -q 'mounts\[0\]\.options\[0\]: refused: expected a string' "$work/out"
sed 's/"root"/"Root":{"path":"\/"},"root"/' "$work/bundle-config" >"$work/bundle/config.json"
run zncctl create twins "$work/bundle"
fails_with 'create refuses a key that is there twice' 1 'duplicate key "root"'
run zncctl config check "$work/bundle"
check 'config check names it' grep -q ': root: refused: expected the key only once, found two$' "$work/out"

# ---------------------------------------------------------------- names with terminal control sequences
cp -r "$work/good" "$work/names"
jq -c '.manifests[0].annotations={"org.opencontainers.image.ref.name":"a\u001b[2J\u009b2J\u202eb\u2028c"}' \
    "$work/good/index.json" >"$work/names/index.json"
unsafe=$(printf '[\x01-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xe2\x80[\xa8-\xae]')
for command in "image ls $work/names" "image ls -q $work/names" "image inspect $work/names" \
    "image check $work/names" "image ls $work/names -f json" "image check $work/names -f json" \
    "unpack --tag none $work/names $work/refused"; do
    # shellcheck disable=SC2086
    run zncctl $command
    check "$command shows no controls" not env LC_ALL=C grep -Eqa "$unsafe" "$work/out" "$work/err"
    [[ $command != *json && $command != *inspect* ]] || check "$command stays JSON" jq -e . "$work/out" >"$work/json"
done

# The names of members, too, and the arguments of programs.
cp -r "$work/tree" "$work/tree-of-names"
unsafe_name=$(printf 'a\x1b[2J\xc2\x9b2J\xe2\x80\xaeb')
echo x >"$work/tree-of-names/$unsafe_name"
chmod 4755 "$work/tree-of-names/$unsafe_name"
make_layout "$work/members" "$plain" "$work/tree-of-names"
run zncctl image check "$work/members"
check 'image check names a member whose name contains controls' grep -q 'set-id .*first: .*a?\[2J.2J.b' "$work/out"
check 'without the controls' not env LC_ALL=C grep -Eqa "$unsafe" "$work/out" "$work/err"
make_bundle "$work/shown" /bin/busybox sh -c "while sleep 1; do :; done"
jq --arg name "$unsafe_name" '.process.args += [$name]' "$work/shown/config.json" >"$work/config"
cp "$work/config" "$work/shown/config.json"
cp -r "$work/shown" "$work/$unsafe_name"
zncctl create "$unsafe_name" "$work/$unsafe_name"
zncctl start "$unsafe_name"
for command in list state top inspect 'ps -a'; do
    # shellcheck disable=SC2086
    case $command in
    list | ps*) run zncctl $command ;;
    *) run zncctl "$command" "$unsafe_name" ;;
    esac
    check "$command shows the container without controls" \
        not env LC_ALL=C grep -Eqa "$unsafe" "$work/out" "$work/err"
    check "$command shows something" test "$status" = 0 -a -n "$out"
done
zncctl delete -qf "$unsafe_name"

# ---------------------------------------------------------------- every image to every command
# A program that attacks what it finds: its streams, the terminal, the null device, what is mounted.
cp -r "$work/tree" "$work/tree-of-attacks"
cat >"$work/tree-of-attacks/attack" <<'SH'
for file in /proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /dev/null /dev/tty /host/kept/file /host; do
    (echo attacked >$file) 2>/dev/null
    (echo attacked 1<>$file >&1) 2>/dev/null
    /bin/busybox chmod 6777 $file 2>/dev/null
    /bin/busybox chown 1:1 $file 2>/dev/null
    /bin/busybox truncate -s 0 $file 2>/dev/null
    /bin/busybox stty -echo -icanon <$file 2>/dev/null
done
/bin/busybox rm -rf /bin/busybox /host/kept
echo attacked
SH
make_layout "$work/attacks" "{\"Entrypoint\":[\"/bin/busybox\"],\"Cmd\":[\"sh\",\"/attack\"],\"User\":\"0\",
    \"Labels\":{\"com.quenmark.zarnel.rtp.rtpPriority\":\"0\"},
    \"Volumes\":{\"$work/victim:/host:rbind,dev,suid,rw\":{}}}" "$work/tree-of-attacks"
good_layer=$ZNC_BASE/layers/$(jq -r '.layers[0].digest | ltrimstr("sha256:")' \
    "$(blob_of "$work/good" "$(manifest_of "$work/good")")")
images=(mounts urgent twice types path duplicate-keys{,2,3,4} fifo holes again sticky names members attacks)
# Everything that no image may change: the bait, the trees of another image, devices and files of the caller.
state_of_all() {
    find "$work/victim" "$good" "$good_layer" -printf '%p %m %U:%G %n %s %T@ %l\n' | sort
    find "$work/victim" "$good" "$good_layer" -type f -exec sha256sum {} + | sort
    stat -c '%n %f %t:%T %u:%g %h %d:%i' /dev/null /dev/zero "$work/input" "$work/output" "$work/errors"
    cat "$work/input"
}
# give_all COMMAND...: gives every image to the commands, with the streams of the caller. A command that takes
# longer than it may is listed in $work/hung.
give_all() {
    local image command
    for image in "${images[@]}"; do
        for command in "run --rm -i --name tricked --os linux" "run -d --name tricked --os linux" \
            "unpack --os linux" "import" "image check" "image inspect"; do
            local target=()
            [[ $command = unpack* || $command = import ]] && target=("$work/made-of-it")
            # shellcheck disable=SC2086
            timeout --foreground 20 "$ZNCCTL" $command "$work/$image" "${target[@]}"
            [[ $? = 124 ]] && echo "$command $image" >>"$work/hung"
            if [[ $command = 'run -d'* ]] && "$ZNCCTL" wait --timeout 20 tricked >"$work/ended" 2>&1; then
                grep -qx 0 "$work/ended" && echo "$image" >>"$work/ran"
                "$ZNCCTL" delete -qf tricked
            fi
            rm -rf "$work/made-of-it"
        done
    done
}
# on_terminal: gives all on a terminal of its own, whose settings, mode and owner are written down before and after.
# shellcheck disable=SC2317 # called in the shell of the terminal
on_terminal() {
    local terminal
    terminal=$(tty)
    look_at_terminal() { stty -g && stat -c '%n %a %u:%g' "$terminal"; }
    look_at_terminal >"$work/terminal-before"
    give_all
    look_at_terminal >"$work/terminal-after"
}
(umask 022 && echo mine >"$work/input" && : >"$work/output" && : >"$work/errors")
: >"$work/hung"
before=$(state_of_all)
give_all <>"$work/input" >>"$work/output" 2>>"$work/errors"
check 'the program that attacks has run' grep -qx attacked "$work/output"
check 'also in the background' grep -qx attacks "$work/ran"
check 'no image changes the host, another image, or the files and devices of the caller' \
    diff <(printf '%s\n' "$before") <(state_of_all)
export work ZNCCTL
export -f on_terminal give_all
SHELL=$BASH script -qec "$(declare -p images); on_terminal" /dev/null </dev/null >"$work/typescript"
check 'the program has run on a terminal, too' grep -q '^attacked' "$work/typescript"
check 'the terminal keeps its settings, mode and owner' \
    test -s "$work/terminal-before" -a "$(<"$work/terminal-after")" = "$(<"$work/terminal-before")"
check 'no image changes anything else from there' diff <(printf '%s\n' "$before") <(state_of_all)
check 'no command waits without end' test "$(<"$work/hung")" = ''

stop_daemon
finish
