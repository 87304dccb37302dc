#!/usr/bin/env bash
# From an image made by other tools to a running container.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci

layout=$work/layout
make_image "$layout"

run zncctl image inspect "$layout"
check 'image inspect prints a JSON array without a daemon' test "$status/${out:0:1}/$err" = '0/[/'
check 'image inspect shows the operating system' grep -q '"linux"' "$work/out"
run zncctl unpack --os zarnel "$layout" "$work/bundle"
check 'an image for another system is not unpacked' test "$status/$out" = 1/
check 'the hint lists the images of the layout' grep -qx \
    "zncctl: hint: no image latest for zarnel/$architecture is there; the layout holds: latest for linux/$architecture" \
    "$work/err"
check 'no bundle is left' test ! -e "$work/bundle"
run zncctl unpack --os linux --tag other "$layout" "$work/bundle"
check 'a tag that is not there is not unpacked' test "$status/$out" = 1/
check 'the hint names the tags' grep -q "no image other .* latest for linux/$architecture\$" "$work/err"

start_daemon
run zncctl unpack --os linux "$layout" "$work/bundle"
check 'unpack says on standard error which layer it is at' test "$status/$out/$(
    sed -E 's/ [0-9a-f]{12}: / X: /; s/[0-9.]+ [KM]iB/N/' "$work/err"
)" = '0//layer 1/2 X: unpacking N
layer 1/2 X: done, N
layer 2/2 X: unpacking N
layer 2/2 X: done, N'
check 'the bundle has a configuration' test -s "$work/bundle/config.json"
run zncctl unpack --os linux "$layout" "$work/bundle"
fails_with 'a bundle is not unpacked over' 1 'OCI bundle rootfs already exists'
run zncctl unpack --os linux --flatten --progress none "$layout" "$work/flat"
expect 'unpack --progress none prints nothing' 0 '' ''
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
    run zncctl start -a "of-$bundle"
    expect "the program of $bundle sees the second layer" 0 'from the second layer' ''
    run zncctl delete "of-$bundle"
    expect "delete of $bundle" 0 "of-$bundle" ''
done

run zncctl unpack --os linux --progress json "$layout" "$work/again"
check 'an image whose device exists is unpacked as a tree' test "$status/$out" = 0/
check 'the hint explains the existing overlay device' grep -q '^zncctl: hint: the overlay device of this image' "$work/err"
check 'progress as JSON is one object for each line' test "$(grep -c '^{"layer":"[0-9a-f]*","index":[01],"count":2,"done":[0-9]*,"total":[0-9]*}$' "$work/err")" -ge 4
rm -rf "$work/again"
run zncctl unpack --progress loud "$layout" "$work/again"
check 'another progress is a usage error' test "$status/$out" = 64/

run zncctl image ls "$layout"
check 'image ls lists tag, system and layers' grep -Eq "^latest  linux  $architecture  2       [0-9]+ +sha256:" \
    "$work/out"
run zncctl image ls -q "$layout"
expect 'image ls -q lists tags' 0 latest ''
run zncctl image ls -f json "$layout"
check 'image ls -f json is an array' python3 -c \
    'import json, sys; [image] = json.load(open(sys.argv[1])); assert image["layers"] == 2' "$work/out"
run zncctl image ls "$work/none"
fails_with 'image ls of a missing layout' 1 'index.json: No such file or directory'
run zncctl image check "$layout"
check 'image check takes a plain image' test "$status/${out##*: }" = "0/taken
  asks for root's rights"
run zncctl image check "$work/damaged"
check 'image check says what is damaged' test "$status" = 1
check 'image check names the damaged layer' grep -qx '  layer 1: refused: the header is damaged (1, first: 0*7*.*)' \
    "$work/out"

run zncctl spec --image "$layout" --os linux
check 'spec takes over the command of an image' python3 -c \
    'import json, sys; c = json.load(open(sys.argv[1])); assert c["process"]["args"] == ["/bin/cat", "/etc/greeting"]' \
    "$work/out"
run zncctl spec --image "$layout:none" --os linux
fails_with 'spec of an image that is not there' 1 \
    'Specified platform or architecture or tag not found'

run zncctl run --rm "$layout"
check 'run of an image passes on what its program prints' test "$status/$out" = \
    '0/from the second layer'
run zncctl run --rm --name named --os linux "$layout:latest"
expect 'a second run needs no unpacking' 0 'from the second layer' ''
run zncctl list -q
expect 'nothing of it is left' 0 '' ''
run zncctl run --rm --os zarnel "$layout"
check 'run of an image for another system exits 125' test "$status/$out" = 125/
check 'the hint lists the images of the layout' grep -q "the layout holds: latest for linux/$architecture\$" "$work/err"
run zncctl run --rm "$work/none"
check 'run of no layout exits 125' test "$status/$out/$(error_line)" = \
    "125//$work/none: File oci-layout not found"

run zncctl storage df -f json
check 'storage df is JSON' python3 -c \
    'import json, sys; assert {e["kind"] for e in json.load(open(sys.argv[1]))} == {"image", "layer", "tree", "device", "bundle"}' \
    "$work/out"
run zncctl storage df
check 'storage df counts the layers, which a bundle needs' grep -Eq '^layer   2      2     [1-9][0-9]* +0$' "$work/out"
zncctl create keeps "$work/bundle"
run zncctl storage gc --dry-run
check 'layers of a container are not collected' not grep -Eq '^(layer|device) ' "$work/out"
check 'a dry run removes nothing' test -d "$ZNC_BASE"/bundles/image-*
zncctl delete -q keeps
run zncctl storage gc -q
expect 'storage gc -q prints nothing' 0 '' ''
check 'a bundle keeps its layers without being named' test "$(find "$ZNC_BASE/layers" -mindepth 1 \
    -maxdepth 1 | wc -l)" = 2
check 'the flattened tree of a bundle is kept' test -e "$ZNC_BASE"/flattened/*/bin/busybox
check 'the bundle made by run is removed' test -z "$(ls "$ZNC_BASE/bundles")"
mkdir -p "$ZNC_BASE/bundles"
exec 8>"$ZNC_BASE/bundles/.in-use"
flock -s 8
run zncctl storage gc
fails_with 'storage gc does not begin before a bundle that run looks for has its container' 1 \
    'an image is being unpacked; try again when it is done'
exec 8>&-
run zncctl storage gc "$work/none"
fails_with 'storage gc of what is no bundle removes nothing' 1 \
    'it is not a bundle: it has no readable config.json'
rm -rf "$work/flat"
run zncctl storage gc
check 'the tree of a bundle that was deleted goes' test "$status/${out%% *}" = 0/tree
mv "$work/bundle" "$work/moved"
run zncctl storage gc "$work/moved"
expect 'a bundle that was moved keeps what it needs by being named' 0 '' ''
mv "$work/moved" "$work/bundle"
rm -rf "$work/bundle"
mkdir "$ZNC_BASE/layers/mine" "$ZNC_BASE/flattened/mine"
run zncctl storage gc
check 'storage gc says what it removes' test "$status/$(cut -d ' ' -f 1 "$work/out" | sort | uniq -c |
    tr -s ' \n' '  ')" = '0/ 1 device 2 layer '
check 'storage gc keeps files that are not its own' rmdir "$ZNC_BASE/layers/mine" "$ZNC_BASE/flattened/mine"
check 'nothing is left' test -z "$(find "$ZNC_BASE"/{layers,flattened,bundles} -mindepth 1 \
    -not -name .lock)"
check 'no overlay device is left' test "$(overlay_mounts)" = 0

# ---------------------------------------------------------------- what is refused before anything is done
cp -r "$layout" "$work/no-mark"
for mark in missing 'no JSON' '{"imageLayoutVersion":"2.0.0"}' '{"imageLayoutVersion":1}'; do
    printf '%s' "$mark" >"$work/no-mark/oci-layout"
    said='Json file oci-layout invalid'
    if [[ $mark = missing ]]; then
        rm "$work/no-mark/oci-layout"
        said='File oci-layout not found'
    fi
    run zncctl unpack --os linux "$work/no-mark" "$work/refused"
    expect "unpack of a layout whose oci-layout is $mark" 1 '' "zncctl: error: $work/no-mark: $said"
    run zncctl run --rm --os linux "$work/no-mark"
    expect "run refuses it the same way" 125 '' "zncctl: error: $work/no-mark: $said"
done
check 'nothing is unpacked of it' test ! -e "$work/refused" -a -z "$(ls "$ZNC_BASE/bundles")"

mkdir -p "$work/foreign/base" "$work/open/base"
chown 1000 "$work/foreign"
chmod 777 "$work/open"
for base in foreign:'belongs to another user' open:'can be written by other users'; do
    for command in "run --os linux $layout" "unpack --os linux $layout $work/refused" 'info' 'storage gc'; do
        # shellcheck disable=SC2086
        ZNC_BASE=$work/${base%%:*}/base run zncctl $command
        check "${command%% -*} says why the storage base is refused: it ${base#*:}" test \
            "$status/$out/$(error_line | sed "s|^$layout: ||")" = \
            "$([[ $command = run* ]] && echo 125 || echo 1)//the storage base is refused: $work/${base%%:*} ${base#*:}"
    done
done

exec 8>"$ZNC_BASE/bundles/.making-layout"
flock -x 8
run zncctl unpack --os linux "$layout" "$work/refused" 8>&-
check 'a process that is stuck at preparing an image is waited for and then named' test "$status/$out/$err" = \
    "1//zncctl: hint: another process prepares an image; waiting for it
zncctl: error: $layout: $ZNC_BASE/bundles/.making-layout: locked for 10 seconds by another process that prepares an image"
exec 8>&-
run zncctl unpack --os linux --progress none "$layout" "$work/refused"
expect 'a process that released the lock is not waited for' 0 '' ''
check 'the lock file is removed by its last user' test ! -e "$ZNC_BASE/bundles/.making-layout"
rm -rf "$work/refused"
zncctl storage gc -q

# An image with one layer more than the kernel stacks.
python3 - "$work/tall" "$work/lower" "$architecture" <<'PYTHON'
import hashlib, io, json, os, sys, tarfile
layout, lower, architecture = sys.argv[1:]
os.makedirs(layout + "/blobs/sha256")
def add(data, kind):
    digest = hashlib.sha256(data).hexdigest()
    with open(f"{layout}/blobs/sha256/{digest}", "wb") as blob:
        blob.write(data)
    return {"mediaType": "application/vnd.oci.image." + kind, "digest": "sha256:" + digest, "size": len(data)}
def archive(fill):
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        fill(tar)
    return add(data.getvalue(), "layer.v1.tar")
def numbered(number):
    member = tarfile.TarInfo("top")
    text = b"layer %d\n" % number
    member.size = len(text)
    return lambda tar: tar.addfile(member, io.BytesIO(text))
layers = [archive(lambda tar: tar.add(lower, "."))] + [archive(numbered(i)) for i in range(1, 501)]
config = add(json.dumps({"architecture": architecture, "os": "linux",
    "config": {"Entrypoint": ["/bin/cat", "/top"]},
    "rootfs": {"type": "layers", "diff_ids": [layer["digest"] for layer in layers]}}).encode(), "config.v1+json")
manifest = add(json.dumps({"schemaVersion": 2, "config": config, "layers": layers}).encode(), "manifest.v1+json")
json.dump({"schemaVersion": 2, "manifests": [manifest]}, open(layout + "/index.json", "w"))
json.dump({"imageLayoutVersion": "1.0.0"}, open(layout + "/oci-layout", "w"))
PYTHON
run zncctl unpack --os linux --progress none "$work/tall" "$work/tall-bundle"
check 'more layers than the kernel stacks are not unpacked as a stack' test "$status/$out/$(error_line)" = \
    "1//$work/tall: Invalid parameter"
check 'the hint names --flatten' grep -q '^zncctl: hint: .*(501); .*--flatten' "$work/err"
check 'no layer is extracted before the refusal' test -z "$(ls "$ZNC_BASE/layers")"
run zncctl unpack --os linux --progress none --flatten "$work/tall" "$work/tall-bundle"
expect 'an image of too many layers is unpacked as one tree' 0 '' ''
run zncctl run --rm --os linux --progress none "$work/tall"
expect 'run flattens an image of too many layers' 0 'layer 500' ''
rm -rf "$work/tall-bundle"
zncctl storage gc -q

umoci init --layout "$work/nowhere" >/dev/null
{
    umoci new --image "$work/nowhere:latest"
    add_layer "$work/nowhere" "$work/lower"
    umoci config --image "$work/nowhere:latest" --os linux --config.cmd /bin/busybox --config.cmd pwd
} >"$work/umoci.log" 2>&1
run zncctl run --rm --os linux --progress none "$work/nowhere"
expect 'an image that names no working directory works in the root' 0 / ''
run zncctl unpack --os linux --flatten --progress none "$work/nowhere" "$work/as-it-is"
run zncctl create where "$work/as-it-is"
expect 'a bundle unpacked from it works in the root' 0 '' ''
zncctl delete -q where
sed -i -E 's/"cwd":[[:space:]]*"[^"]*",?//' "$work/as-it-is/config.json"
run zncctl create where "$work/as-it-is"
check 'a bundle without a working directory is refused with a hint' test "$status/$(error_line)" = \
    '1/where: OCI cwd parameter invalid'
check 'the hint names the member to be set' grep -q '^zncctl: hint: process\.cwd ' "$work/err"
stop_daemon
run zncctl storage gc
fails_with 'storage gc without a daemon exits 4' 4 'The daemon is not running'

finish
