#!/usr/bin/env bash
# Imports images with several layers made by umoci, and copies made by skopeo: whiteouts, replaced types,
# archive formats, compressions, the selection of one of several images, and the resulting layout.
# shellcheck source=cli_import_lib.sh disable=SC2317
. "$(dirname "$0")/cli_import_lib.sh"
need busybox
need umoci
need skopeo

cd "$work" || exit 1
lenient=(--devices drop --long-links hop)
source=$work/source

# change COMMAND...: adds a layer to image app with the changes that the command makes in its root.
change() {
    quietly umoci unpack --image "$source:app" step
    (cd step/rootfs && "$@")
    quietly umoci repack --image "$source:app" step
    rm -rf step
}

base() {
    tree mixed .
    mkdir -p bin srv/site/{old,kept}
    cp "$(command -v busybox)" bin/busybox
    ln -s busybox bin/cat
    echo first | tee srv/site/{old,kept}/page srv/site/index srv/retyped >/dev/null
    mkdir srv/tree && echo leaf >srv/tree/leaf
    ln -s site srv/link
    echo hello >etc/greeting
}
removals() {
    rm -r srv/site/old srv/site/index
    rm srv/retyped srv/link hard/second
    rm -r srv/tree
    mkdir srv/retyped srv/link
    echo inside | tee srv/retyped/file srv/link/file >/dev/null
    ln -s site/kept srv/tree
    chmod 0700 bin/cat bin/busybox srv/site/kept
    touch -d 2002-03-04T05:06:07Z srv/site srv
}
additions() {
    mkdir -p srv/site/old
    echo again >srv/site/old/new
    ln hard/first hard/fourth
    rm -r srv/link && echo file >srv/link
}

quietly umoci init --layout "$source"
quietly umoci new --image "$source:app"
change base
change removals
change additions
mkdir -p opaque/{srv/site,etc}
touch opaque/srv/site/.wh..wh..opq opaque/etc/.wh.empty
echo only >opaque/srv/site/only
tar --format=pax --owner=0 --group=0 -C opaque -cf opaque.tar .
quietly umoci raw add-layer --image "$source:app" opaque.tar
quietly umoci config --image "$source:app" --os linux --architecture amd64 --config.workingdir / \
    --config.entrypoint /bin/cat --config.cmd /etc/greeting --manifest.annotation org.example.kept=yes
quietly umoci raw unpack --image "$source:app" expected

imports 'umoci: four layers' "${lenient[@]}" "$source"
same 'umoci: four layers' "$work/expected" --untimed-directories
app_digest=$digest
check 'removed files do not exist' test ! -e expected/etc/empty -a ! -e expected/srv/site/kept
check 'the system is that of the source' test "$(system_of "$layout" "$tag")" = linux
check 'the result has one layer' test "$(zncctl image ls -f json "$layout" |
    python3 -c 'import json, sys; print(json.load(sys.stdin)[0]["layers"])')" = 1

# image_json LAYOUT TAG manifest|config: prints the document from the blobs.
image_json() {
    python3 - "$@" <<'PYTHON'
import json, os, sys
layout, tag, what = sys.argv[1:]
def read(digest):
    return json.load(open(os.path.join(layout, "blobs", *digest.split(":"))))
for entry in json.load(open(os.path.join(layout, "index.json")))["manifests"]:
    if entry["annotations"]["org.opencontainers.image.ref.name"] == tag:
        manifest = read(entry["digest"])
        print(json.dumps(manifest if what == "manifest" else read(manifest["config"]["digest"])))
PYTHON
}
manifest=$(image_json "$layout" "$tag" manifest)
check 'annotations are carried over' test "$(jq -r '.annotations["org.example.kept"]' <<<"$manifest")" = yes
check 'the command is carried over' test "$(image_json "$layout" "$tag" config |
    jq -c '[.config.Entrypoint, .config.Cmd]')" = '[["/bin/cat"],["/etc/greeting"]]'

run env SOURCE_DATE_EPOCH=86400 "$ZNCCTL" import "${lenient[@]}" "$source" "$work/dated"
check 'the time of making can be set' test "$(image_json "$work/dated" app config | jq -r .created)" = \
    1970-01-02T00:00:00Z

start_daemon
run zncctl run --rm --os linux "$layout:$tag"
check 'a container runs from it' test "$status/$out" = 0/hello

# The library refuses the original image: run and unpack convert it by themselves.
run zncctl run --rm --os linux "$source:app"
check 'run converts it' test "$status/$out" = 0/hello
zncctl image prune --force >/dev/null
run zncctl unpack --os linux --tag app --progress none "$source" "$work/bundle"
check 'unpack converts the image' test "$status" = 0 -a -s "$work/bundle/config.json"
rm -rf "$work/bundle"
stop_daemon

# The same image in other formats.
copy() { quietly skopeo copy --insecure-policy "$@"; }
copy "oci:$source:app" "oci-archive:app.oci.tar:app"
copy "oci:$source:app" "docker-archive:app.docker.tar:example.com:5000/app:v1"
gzip -kc app.oci.tar >app.oci.tgz
copy --dest-decompress "oci:$source:app" "dir:plain"
copy --dest-oci-accept-uncompressed-layers "dir:plain" "oci:plain.layout:app"
check 'skopeo wrote uncompressed layers' grep -q 'layer.v1.tar"' <(image_json plain.layout app manifest)
copy --dest-compress --dest-compress-format zstd "dir:plain" "oci:zstd.layout:app"
check 'skopeo wrote zstd layers' grep -q 'layer.v1.tar+zstd"' <(image_json zstd.layout app manifest)
for form in "oci:$source:app" app.oci.tar app.oci.tgz oci-archive:app.oci.tar:app plain.layout \
    zstd.layout app.docker.tar docker-archive:app.docker.tar:example.com:5000/app:v1; do
    imports "skopeo: $form" "${lenient[@]}" "$form"
    layers=$(image_json "$layout" "$tag" config | jq -r '.rootfs.diff_ids[]')
    check "$form: the same tree" test "${layers:-none}" = "${first_layers:=$layers}"
done
check 'the layers of the imported image are those of the source' test "$first_layers" = "$(image_json "$layout" image1 config |
    jq -r '.rootfs.diff_ids[]')"
run zncctl import "${lenient[@]}" "oci:$source:app" "$work/named"
check 'the tag of the source is kept' test "$(zncctl image ls -q "$work/named")" = app
check 'the digest does not depend on the form of the source' test "$out" = "$app_digest"
run zncctl import "${lenient[@]}" app.docker.tar "$work/docker"
check 'the tag of an older archive is kept' test "$(zncctl image ls -q "$work/docker")" = v1
run zncctl run --rm --os linux zstd.layout:app
check 'a layer compressed by zstd is not run' test "$status/$out" = 125/

# A tag that exists already.
before=$(state_of "$layout")
run zncctl import "${lenient[@]}" "$source" "$layout:$tag"
check 'a tag is not replaced unasked' test "$status/$out" = 3/
check 'the message names --force' grep -q -- '--force' "$work/err"
check 'the layout has not changed' test "$before" = "$(state_of "$layout")"
run zncctl import --force "${lenient[@]}" --set-arch arm64 --set-os zarnel "$source" "$layout:other"
run zncctl import --force "${lenient[@]}" "$source" "$layout:other"
check 'the same tag for another platform is another image' test "$(zncctl image ls -f json "$layout" |
    jq -c '[.[] | select(.tag == "other") | .os + "/" + .architecture] | sort')" = '["linux/amd64","zarnel/arm64"]'
tree plain "$work/small"
run zncctl import --force --set-os linux "$work/small" "$layout:other"
check '--force replaces it' test "$status/$(image_json "$layout" other config |
    jq -r '.os + "/" + .architecture' | sort | tr '\n' ' ')" = '0/linux/amd64 zarnel/arm64 '
check 'other tags of the layout stay' test "$(zncctl image ls -q "$layout" | grep -c '^image')" = "$number"

# Several images in one source.
quietly umoci tag --image "$source:app" second
run zncctl import "${lenient[@]}" "$source" "$layout:several"
check 'import of a source with several images needs a selection' test "$status/$out" = 2/
check 'the images of the source are listed' test "$(grep -Eo '\b(app|second)\b' "$work/err" | sort -u | tr '\n' ' ')" = 'app second '
imports 'one that is named' "${lenient[@]}" "oci:$source:second"
run zncctl import "${lenient[@]}" "oci:$source:third" "$layout:several"
check 'a missing image exits 2' test "$status/$out" = 2/

# Several platforms with the same name.
imports 'for another system' --set-os linux --set-arch arm64 "$work/small"
python3 - "$layout" "$tag" image1 <<'PYTHON'
import hashlib, json, os, sys
layout, *tags = sys.argv[1:]
path = os.path.join(layout, "index.json")
index = json.load(open(path))
name = "org.opencontainers.image.ref.name"
chosen = []
for entry in index["manifests"]:
    if entry["annotations"][name] in tags:
        arm = entry["annotations"][name] == tags[0]
        chosen.append({k: entry[k] for k in ("mediaType", "digest", "size")} | {
            "platform": {"os": "linux", "architecture": "arm64", "variant": "v8"} if arm else
                        {"os": "linux", "architecture": "amd64"}})
kind = "application/vnd.oci.image.index.v1+json"
nested = json.dumps({"schemaVersion": 2, "mediaType": kind, "manifests": chosen}).encode()
digest = hashlib.sha256(nested).hexdigest()
open(os.path.join(layout, "blobs/sha256", digest), "wb").write(nested)
os.makedirs("platforms")
os.symlink(os.path.join(layout, "blobs"), "platforms/blobs")
json.dump({"imageLayoutVersion": "1.0.0"}, open("platforms/oci-layout", "w"))
json.dump({"schemaVersion": 2, "manifests": [
    {"mediaType": kind, "digest": "sha256:" + digest, "size": len(nested),
     "annotations": {name: "multi"}}]}, open("platforms/index.json", "w"))
PYTHON
rm platforms/blobs && cp -a "$layout/blobs" platforms/blobs
run zncctl import platforms "$layout:none"
check 'several platforms are no choice' test "$status/$out" = 2/
check 'the platforms of the source are listed' grep -q 'linux/arm64' "$work/err"
imports 'one of them by --platform' --platform linux/arm64/v8 platforms
check 'the selected platform is imported' test "$(image_json "$layout" "$tag" config | jq -r .architecture)" = arm64
run zncctl import --platform linux/riscv64 platforms "$layout:none"
check 'a platform that is not there' test "$status/$out" = 2/

# Keeping lower layers: a layer that only adds files leaves the layers below it unchanged.
quietly umoci new --image "$source:split"
for step in base one two; do
    mkdir -p "layer.$step/$step"
    if [[ $step == base ]]; then tree mixed layer.base; else echo "$step" >"layer.$step/$step/file"; fi
    (cd "layer.$step" && tar --format=pax --xattrs --xattrs-include='*' -cf ../layer.tar ./*)
    quietly umoci raw add-layer --image "$source:split" layer.tar
    imports "--split, $step" "${lenient[@]}" --split "oci:$source:split"
    quietly umoci raw unpack --image "$source:split" "expected.$step"
    same "--split, $step" "$work/expected.$step" --untimed-directories
    image_json "$layout" "$tag" manifest | jq -r '.layers[].digest' >"layers.$step"
done
check '--split keeps unchanged layers separate' test "$(wc -l <layers.two)" = 3
check 'the lower layers stay what they were' test "$(head -n 2 layers.two)" = "$(<layers.one)"
check 'the lower layers are the same in every step' test "$(head -n 1 layers.one)" = "$(<layers.base)"
imports '--split of a layer that changes those below it' "${lenient[@]}" --split "oci:$source:app"
same '--split of a layer that changes those below it' "$work/expected" --untimed-directories

# Damaged blobs.
blob=$(image_json zstd.layout app manifest | jq -r '.layers[1].digest' | tr : /)
printf 'x' | dd of="zstd.layout/blobs/$blob" bs=1 seek=100 conv=notrunc status=none
before=$(state_of "$layout")
run zncctl import "${lenient[@]}" zstd.layout "$layout:damaged"
check 'a damaged layer is not imported' test "$status/$out" = 1/
check 'a refused import does not change the layout' test "$before" = "$(state_of "$layout")"
check 'no temporary file stays' test -z "$(ls -A "$TMPDIR")"

cd / || exit 1
finish
