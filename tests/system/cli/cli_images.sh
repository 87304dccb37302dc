#!/usr/bin/env bash
# Tests of the image store: images with names, imported, pulled, loaded, run, tagged and removed.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need_registry
store=$ZNC_BASE/images

id_of() { zncctl images -q --no-trunc "$1"; }
layers() { find "$ZNC_BASE/layers" -mindepth 1 -maxdepth 1 -name '[0-9a-f]*' | wc -l; }
blobs() { find "$store/blobs" -type f | wc -l; }
skopeo_reads() { skopeo inspect --config "oci:$store:$1" >/dev/null 2>&1; }
quietly() { "$@" >"$work/tool.log" 2>&1 || cat "$work/tool.log"; }
no_stage() { [[ -z $(find "$store" -maxdepth 1 -name '.new-*') ]]; }
store_is_whole() {
    zncctl images --format json | jq -e 'all(.id | startswith("sha256:"))' >/dev/null
}

# A root filesystem with a hard link, which the library does not extract.
mkdir -p "$work"/root/{bin,proc,dev,sys,etc,tmp}
cp "$(command -v busybox)" "$work/root/bin/busybox"
ln "$work/root/bin/busybox" "$work/root/bin/sh"
for program in cat echo sleep ls; do ln -s busybox "$work/root/bin/$program"; done
echo first >"$work/root/etc/greeting"

# ---------------------------------------------------------------- import, images, tag, rmi
run zncctl images
expect 'an empty store has no images' 0 'REPOSITORY  TAG  IMAGE ID  CREATED  SIZE' ''
run zncctl images -q
expect 'an empty store has no ids' 0 '' ''
run zncctl run --pull never nothing
check 'run of a name that is not in the store exits 125' test "$status/$out/$(error_line)" = \
    '125//nothing: there is no such image in the store'
check 'the hint names zncctl pull' grep -q "^zncctl: hint: .*'zncctl pull'" "$work/err"
run zncctl import "$work/root" shell
check 'import into the store prints the id' grep -qx 'sha256:[0-9a-f]*' "$work/out"
id=${out#sha256:}
check 'import prints what was changed' test "$status/$err" = '0/zncctl: changed: 1 hard link copied'
run zncctl images
check 'images shows repository, tag and id' grep -Eq \
    "^localhost/shell +latest +${id:0:12}  .* [0-9.]+ [kM]B\$" "$work/out"
run zncctl images -q
expect 'images -q prints the short id' 0 "${id:0:12}" ''
run zncctl images -q --no-trunc shell
expect 'images --no-trunc prints whole ids and takes a name' 0 "sha256:$id" ''
run zncctl images --format '{{.ID}} {{.Repository}}:{{.Tag}}|{{.Names}}'
expect 'images takes formats with fields' 0 "${id:0:12} localhost/shell:latest|localhost/shell:latest" ''
run zncctl images --no-trunc --format 'table {{.ID}}\t{{.Digest}}'
check 'images takes a table of fields' grep -qx 'IMAGE ID *DIGEST' "$work/out"
check 'a table with --no-trunc has whole ids' grep -q "^sha256:$id  sha256:" "$work/out"
run zncctl image ls --format '{{.Tag}}'
expect 'image ls takes them, too' 0 latest ''
for command in images 'image ls'; do
    # shellcheck disable=SC2086
    run zncctl $command --format '{{.Odd}}'
    check "a wrong format of $command is a usage error" test "$status/$out" = 64/
done
run zncctl images -q shell:other
expect 'another tag selects nothing' 0 '' ''
check 'the id is the digest of the configuration' test -f "$store/blobs/sha256/$id"
check 'the store is a layout that other tools read' skopeo_reads \
    localhost/shell:latest
run zncctl image inspect shell
check 'image inspect takes a name' test "$(jq length "$work/out")" = 1
run zncctl image check shell
check 'image check takes a name' test "$status/${out%%:*}" = '0/localhost/shell'
run zncctl image ls "${id:0:12}"
check 'image ls takes an id' grep -q '^localhost/shell:latest ' "$work/out"
run zncctl image ls -q
expect 'image ls lists the names of the store' 0 localhost/shell:latest ''
run zncctl spec --image shell
check 'spec takes a name' test "$(jq -r .process.cwd "$work/out")" = /
check 'inspection leaves no files' no_stage
check 'the store is accessible to root only' test "$(stat -c %a "$store")" = 700

start_daemon
for name in shell localhost/shell shell:latest localhost/shell:latest "$id" "sha256:$id" "${id:0:12}" "${id:0:3}" \
    "localhost/shell@$(zncctl images --format json | jq -r '.[0].digest')"; do
    run zncctl run --rm --network none --progress none "$name"
    check "run finds $name" test "$status/$err" = 0/
done
run zncctl tag shell tools:v1 quay.example.org:5000/team/tools
expect 'tag prints nothing' 0 '' ''
run zncctl image inspect tools:v1
check 'image inspect has them all' test "$(jq -c '.[0].RepoTags' "$work/out")" = \
    '["localhost/shell:latest","localhost/tools:v1","quay.example.org:5000/team/tools:latest"]'
check 'the image has three names' test "$(names)" = \
    'localhost/shell:latest localhost/tools:v1 quay.example.org:5000/team/tools:latest '
check 'the image has one id' test "$(zncctl images -q | wc -l)" = 1
for name in '../../etc' 'a b' 'UPPER' 'x:..' "$(printf 'x%.0s' {1..300})" $'bad\nname' 'x@sha256:1' 'a//b' '-x/'; do
    run zncctl tag shell -- "$name"
    check "a name that is none is refused (${#name} bytes)" test "$status/$out" = 1/
done
check 'nothing changed by that' test "$(names | wc -w)" = 3
run zncctl rmi shell
expect 'rmi removes one of several names' 0 'Untagged: localhost/shell:latest' ''
run zncctl rmi "$id"
check 'rmi by id is refused while there are several names' test "$status" = 3
run zncctl rmi tools:v1
check 'rmi by name removes one of several names' test "$status/$out" = '0/Untagged: localhost/tools:v1'
run zncctl rmi nosuch
fails_with 'rmi of what is not there exits 2' 2 'there is no such image in the store'

# ---------------------------------------------------------------- containers that use an image
# image_use: number, used, bytes, unused bytes.
image_use() { zncctl system df --format json | jq -r '.[] | select(.kind == "image") | "\(.count) \(.used) \(.bytes) \(.unusedBytes)"'; }
zncctl tag "$id" shell
size=$(find "$store/blobs" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum }')
check 'system df counts an image with two names once' test "$(image_use)" = "1 0 $size $size"
zncctl rmi quay.example.org:5000/team/tools >/dev/null
run zncctl run -d --name user --network none --progress none shell
check 'a container runs from it' test "$status" = 0
check 'system df counts the image as used' test "$(image_use)" = "1 1 $size 0"
run zncctl rmi shell
check 'rmi of an image that a container uses is refused' test "$status/$(error_line)" = \
    '3/shell: it is used by the containers user'
run zncctl image prune --all --force
check 'image prune --all keeps it' test "$(names)" = 'localhost/shell:latest '
run zncctl rmi --force shell
check 'rmi --force removes it' test "$status/${out%%$'\n'*}" = '0/Untagged: localhost/shell:latest'
check 'rmi --force deletes the container' test -z "$(zncctl list -q)"
check 'no blob is left' test "$(blobs)" = 0

# ---------------------------------------------------------------- layouts and archives
make_image "$work/layout"
cp -r "$work/layout" "$work/sleeping"
quietly umoci config --image "$work/sleeping:latest" --config.entrypoint /bin/busybox \
    --config.cmd sleep --config.cmd "$mark"
zncctl import -q "oci:$work/sleeping:latest" sleeper
run zncctl run -d --name asleep --network none --progress none sleeper
check 'a container runs from an image of the store' eventually program_lives
zncctl storage gc -q
zncctl image prune --all --force >/dev/null
run zncctl run -d --name beside --network none --progress none sleeper
expect 'collecting what is unused leaves the image and its bundle' 0 beside ''
run zncctl import -q --force "oci:$work/layout:latest" sleeper
check 'the name can move to another image' test "$status" = 0
run zncctl list -q --status running
expect 'both images run after the name has moved' 0 $'asleep\nbeside' ''
run zncctl image prune --force
check 'the old image without a name is kept while it is used' test "$(zncctl images --format json | jq 'map(select(.name == "")) | length')" = 1
zncctl delete -qf asleep beside
run zncctl image prune --force
check 'the old image is removed with its containers' test "$(names)" = 'localhost/sleeper:latest '
zncctl rmi sleeper >/dev/null
check 'nothing is left' test "$(blobs)" = 0

# A converted image keeps its user, who is looked up with all groups when it runs.
cp -r "$work/root" "$work/users"
echo app:x:1000:100::/:/bin/sh >"$work/users/etc/passwd"
echo video:x:44:app >"$work/users/etc/group"
quietly umoci init --layout "$work/user"
quietly umoci new --image "$work/user:latest"
add_layer "$work/user" "$work/users" >"$work/tool.log" 2>&1
quietly umoci config --image "$work/user:latest" --os linux --architecture "$architecture" --config.user app \
    --config.entrypoint /bin/busybox --config.cmd id --config.cmd -G
run zncctl run --rm --network none --progress none "$work/user"
check 'a converted image keeps the groups of its user' test "$status/$out" = '0/100 44'
zncctl image prune --force >/dev/null

zncctl import -q "oci:$work/layout:latest" read
exec 8>"$store/.in-use"
flock -s 8
run zncctl rmi read 8>&-
check 'an image that is being read can be removed' test "$status/$(names)" = 0/
check 'the blobs of an image that is being read stay' test "$(blobs)" -gt 0
exec 8>&-
zncctl image prune --force >/dev/null
check 'the blobs are removed after the reading' test "$(blobs)" = 0

run zncctl run --rm --network none --progress none "oci:$work/layout:latest"
expect 'a layout with a prefix runs as it is' 0 'from the second layer' ''
check 'a layout with a prefix is not added to the store' test "$(names)" = ''
quietly skopeo copy --insecure-policy "oci:$work/layout:latest" "docker-archive:$work/docker.tar:example/app:v2"
quietly skopeo copy --insecure-policy "oci:$work/layout:latest" "oci-archive:$work/oci.tar:app"
quietly skopeo copy --insecure-policy --dest-compress --dest-compress-format zstd "oci:$work/layout:latest" \
    "oci:$work/zstd:latest"
quietly skopeo copy --insecure-policy --dest-decompress "oci:$work/layout:latest" "dir:$work/plain"
quietly skopeo copy --insecure-policy --dest-compress --dest-compress-format zstd "dir:$work/plain" \
    "oci:$work/zstd:latest"
check 'skopeo wrote zstd layers' grep -rq 'layer.v1.tar+zstd' "$work/zstd/blobs"
pids=()
for i in {1..6}; do
    "$ZNCCTL" run --rm --network none --progress none "oci-archive:$work/oci.tar" </dev/null >"$work/runs$i" 2>&1 &
    pids[i]=$!
done
ok=0
for i in {1..6}; do wait "${pids[i]}" && ok=$((ok + 1)); done
check 'an archive runs in several containers at once' test "$ok" = 6
check 'an archive is converted only once' test "$(zncctl images -q | wc -l)" = 1
for source in "$work/zstd" "oci:$work/zstd:latest" "oci-archive:$work/oci.tar" \
    "docker-archive:$work/docker.tar" "docker-archive:$work/docker.tar:example/app:v2"; do
    run zncctl run --rm --network none --progress none "$source"
    check "$source: is converted and runs" test "$status/$out" = '0/from the second layer'
    before=$(blobs)
    run zncctl run --rm --network none --progress none "$source"
    expect "$source: the second time at once" 0 'from the second layer' ''
    check "$source: nothing is stored again" test "$(blobs)" = "$before"
done
check 'images of archives run directly have no names' test "$(names | tr -d ' ')" = ''
run zncctl unpack --progress none "$work/zstd" "$work/unpacked"
check 'unpack converts, too' test "$status" = 0 -a -s "$work/unpacked/config.json"
rm -rf "$work/unpacked"
run zncctl image prune
fails_with 'image prune does not remove without being asked to' 1 \
    'standard input is not a terminal, so --force is needed'
run zncctl image prune --force
check 'image prune removes images without names' test "$status/$(blobs)" = 0/0

run zncctl load -q -i "$work/docker.tar"
expect 'load -q prints nothing' 0 '' ''
run zncctl load -i "$work/docker.tar"
expect 'load keeps the name of a docker-archive' 0 'Loaded image: docker.io/example/app:v2' ''
"$ZNCCTL" load <"$work/oci.tar" >"$work/out" 2>"$work/err"
check 'load reads standard input' test "$?/$(<"$work/out")" = '0/Loaded image: localhost/app:latest'
gzip -k "$work/oci.tar"
# shellcheck disable=SC2002 # a pipe is what is tested
cat "$work/oci.tar.gz" | "$ZNCCTL" load >"$work/out" 2>"$work/err"
check 'load reads a compressed archive from a pipe' test "$?/$(<"$work/out")" = '0/Loaded image: localhost/app:latest'
check 'both names are in the store' test "$(names)" = 'docker.io/example/app:v2 localhost/app:latest '
check 'both names are of the same image' test "$(zncctl images -q | wc -l)" = 1
run zncctl run --rm --network none --progress none example/app:v2
expect 'a short name finds it' 0 'from the second layer' ''
tar -C "$work/root" -cf "$work/root.tar" .
run zncctl load -i "$work/root.tar"
check 'load of a root filesystem is refused' test "$status/$out" = 1/
check 'the hint names zncctl import' grep -q "^zncctl: hint: 'zncctl import'" "$work/err"
run zncctl import --list "$work/docker.tar"
check 'import --list prints the images of a source' test "$status/$(jq -c '.[0] | [.names, .os, .rootfs]' "$work/out")" = \
    '0/[["docker.io/example/app:v2"],"linux",false]'
run zncctl import --list "$work/docker.tar" "$work/nowhere"
check 'import --list takes no target' test "$status/$out" = 64/ -a ! -e "$work/nowhere"
mkdir "$work/docker"
tar -C "$work/docker" -xf "$work/docker.tar"
jq -c '.[0].RepoTags = ["../../etc/passwd:x", "/etc/shadow", "a\u001b[2Jb:1", "'"$(printf 'x%.0s' {1..400})"'", "fine:1"]' \
    "$work/docker/manifest.json" >"$work/manifest"
cp "$work/manifest" "$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/names.tar" .
run zncctl load -i "$work/names.tar"
expect 'load ignores invalid image names' 0 'Loaded image: docker.io/library/fine:1' ''
check 'load keeps several valid names' test "$(names)" = \
    'docker.io/example/app:v2 docker.io/library/fine:1 localhost/app:latest '
zncctl rmi fine:1 >/dev/null
before=$(names)
jq -c '[.[0] | (.RepoTags = ["app:one"], .RepoTags = ["other/app:one"], .RepoTags = ["third:one"])]' \
    "$work/manifest" >"$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/alike.tar" .
run zncctl load -i "$work/alike.tar"
check 'load adds images whose names end alike' test "$status/$out" = "0/$(
    printf 'Loaded image: docker.io/%s\n' library/app:one other/app:one library/third:one)"
run zncctl run --rm --network none --progress none "docker-archive:$work/alike.tar:app:one"
expect 'a whole name selects one of them' 0 'from the second layer' ''
run zncctl run --rm --network none --progress none "docker-archive:$work/alike.tar:@2"
expect 'an image is selected by its index' 0 'from the second layer' ''
zncctl rmi app:one other/app:one third:one >/dev/null
zncctl image prune --force >/dev/null
jq -c '.[0].RepoTags = ["cut:1"] | .[0].Layers[1] = "none.tar"' "$work/manifest" >"$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/missing.tar" .
run zncctl load -i "$work/missing.tar"
check 'load of an archive without a layer fails' test "$status/$out/$(error_line)" = \
    "1//$work/missing.tar: it contains no complete image"
check 'load prints which layer is missing' grep -qx \
    "zncctl: warning: $work/missing.tar: cut:1 is not added: the layer none.tar is missing" "$work/err"
jq -c '. + [.[0] | .RepoTags = ["whole:1"] | .Layers[1] = $layer]' \
    --arg layer "$(jq -r '.[0].Layers[1]' "$work/manifest")" "$work/docker/manifest.json" >"$work/two"
mv "$work/two" "$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/missing.tar" .
run zncctl load -i "$work/missing.tar"
check 'load adds the complete images of the archive' test "$status/$out" = '0/Loaded image: docker.io/library/whole:1'
check 'load warns about the incomplete image' grep -q '^zncctl: warning: .*: cut:1 is not added: ' "$work/err"
zncctl rmi whole:1 >/dev/null
check 'all loaded images can be removed' test "$(names)" = "$before"
jq -c '.[0].RepoTags = [range(101) | "many:\(.)"]' "$work/manifest" >"$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/many.tar" .
run zncctl load -i "$work/many.tar"
fails_with 'load of an image with too many names is refused' 1 'an image has 101 names, more than 100'
jq -c '.[0].RepoTags = [] | [range(101) as $i | .[0]]' "$work/manifest" >"$work/docker/manifest.json"
tar -C "$work/docker" -cf "$work/many.tar" .
run zncctl load -i "$work/many.tar"
fails_with 'and of an archive with too many images' 1 'it contains 101 images, more than 100'
check 'nothing of them is added' test "$(names)" = "$before"
echo junk >"$work/junk.tar"
for source in "load -i $work/junk.tar" "run oci-archive:$work/junk.tar"; do
    # shellcheck disable=SC2086
    run zncctl $source
    check "the file is named in an error of ${source%% *}" grep -q "^zncctl: error: $work/junk.tar: " "$work/err"
done
head -c 5000 "$work/oci.tar" >"$work/cut.tar"
run zncctl load -i "$work/cut.tar"
check 'load of a cut archive is refused' test "$status/$out" != 0/
check 'a refused load leaves no stage' no_stage
# Names are inherited from one index by the next: a short archive has a long list.
mkdir -p "$work/long/blobs/sha256"
printf '{"imageLayoutVersion":"1.0.0"}' >"$work/long/oci-layout"
jq -nc '{schemaVersion: 2, manifests: [range(200) | {mediaType: "application/vnd.oci.image.manifest.v1+json",
    digest: ("sha256:" + "0" * 64), size: 1}]}' >"$work/inner"
inner=$(sha256sum "$work/inner" | cut -d ' ' -f 1)
jq -nc --arg digest "sha256:$inner" --argjson size "$(stat -c %s "$work/inner")" \
    '{schemaVersion: 2, manifests: [{mediaType: "application/vnd.oci.image.index.v1+json", digest: $digest,
    size: $size, annotations: {"org.opencontainers.image.ref.name": ("x" * 100000)}}]}' >"$work/long/index.json"
mv "$work/inner" "$work/long/blobs/sha256/$inner"
tar -C "$work/long" -cf "$work/long.tar" .
run zncctl load -i "$work/long.tar"
expect 'a list of images that is too long is one error' 1 '' \
    "zncctl: error: $work/long.tar: the list of its images is too long"
run zncctl load -i /dev/zero
fails_with 'load of a device is refused' 1 '/dev/zero: it is not an archive'

# ---------------------------------------------------------------- pull
quietly skopeo copy --insecure-policy "oci:$work/layout:latest" "oci:$work/served:latest"
quietly skopeo copy --insecure-policy "oci:$work/zstd:latest" "oci:$work/served:zstd"
serve "$work/served"
run zncctl pull -q "$host/team/app"
check 'a registry without TLS is refused by default' test "$status/$out" = 1/
run zncctl pull -q --tls-verify=false "$host/team/app"
check 'pull prints the id' grep -qx '[0-9a-f]\{64\}' "$work/out"
pulled=$out
check 'the id is that of the image on the registry' test "sha256:$pulled" = \
    "$(skopeo inspect --raw "oci:$work/served:latest" | jq -r .config.digest)"
digest=$(skopeo inspect --raw "oci:$work/served:latest" | sha256sum | cut -d ' ' -f 1)
run zncctl run --rm --network none --progress none "$host/team/app"
expect 'the pulled image runs' 0 'from the second layer' ''
run zncctl run --rm --network none --progress none "$host/team/app@sha256:$digest"
expect 'the pulled image is found by its digest' 0 'from the second layer' ''
run zncctl pull -q --tls-verify=false "$host/team/app:zstd"
check 'pull converts what the library cannot unpack' test "$status" = 0
run zncctl run --rm --network none --progress none "$host/team/app:zstd"
expect 'a converted image runs' 0 'from the second layer' ''
before=$(zncctl images --format json)
run zncctl pull -q --tls-verify=false "$host/team/app"
check 'pulling it again changes nothing' test "$status/$out" = "0/$pulled" -a \
    "$(jq -S 'sort_by(.name)' <<<"$before")" = "$(zncctl images --format json | jq -S 'sort_by(.name)')"
run zncctl pull -q --tls-verify=false "docker://$host/team/app@sha256:$digest"
check 'pull by digest' test "$status/$out" = "0/$pulled"
check 'keeps the digest as the name' grep -q "$host/team/app@sha256:$digest" <<<"$(names)"
run zncctl pull -q --tls-verify=false "$host/team/app:none"
check 'pull of what is not there fails' test "$status/$out" = 1/
check 'a failed pull leaves no stage' no_stage
run zncctl pull -q "oci:$work/layout:latest" "dir:$work/plain"
check 'pull takes the transports of skopeo' test "$status" = 0
check 'images of other transports are named by their directories' grep -q 'localhost/layout:latest .*localhost/plain:latest' <<<"$(names)"
# A directory that is called as the digest of another image.
cp -r "$work/layout" "$work/evil"
quietly umoci config --image "$work/evil:latest" --config.entrypoint /bin/busybox --config.cmd echo --config.cmd evil
meant=$(skopeo inspect --raw "oci:$work/layout:latest" | sha256sum | cut -d ' ' -f 1)
zstd=$(skopeo inspect --raw "oci:$work/zstd:latest" | sha256sum | cut -d ' ' -f 1)
for digest in "$meant" "$zstd"; do
    quietly skopeo copy --insecure-policy "oci:$work/evil:latest" "dir:$work/q@sha256:$digest"
    run zncctl pull -q "dir:$work/q@sha256:$digest"
    check 'a directory that is called as a digest can be pulled' test "$status" = 0
    run zncctl run --rm --network none --progress none "q@sha256:$digest"
    check 'an image of a local source is not found by a digest' test "$status/$out" = 125/
done
for layout in layout zstd; do
    run zncctl run --rm --network none --progress none "$work/$layout"
    expect "and does not run instead of a layout with this digest ($layout)" 0 'from the second layer' ''
done
zncctl image prune --force >/dev/null
PATH=/nowhere run "$ZNCCTL" pull busybox
check 'pull without skopeo names what is missing' test "$status/$(error_line)" = \
    '1/docker.io/library/busybox:latest: skopeo, which fetches images, is not installed'
check 'the hint suggests to install skopeo' grep -q '^zncctl: hint: .*install the package skopeo' "$work/err"
pids=()
for i in 1 2 3 4; do
    "$ZNCCTL" pull -q --tls-verify=false "$host/one/app:zstd" "$host/two/app$((i % 2))" </dev/null \
        >/dev/null 2>>"$work/pulls" &
    pids[i]=$!
done
ok=0
for i in 1 2 3 4; do wait "${pids[i]}" && ok=$((ok + 1)); done
check 'pulls of the same images at once all succeed' test "$ok" = 4
check 'one image of each remains' test "$(names | tr ' ' '\n' | grep -Ec '/(one|two)/')" = 3 -a \
    "$(zncctl images -q "$host/two/app0")" = "$(zncctl images -q "$host/two/app1")"
check 'the store is whole' store_is_whole
stop_serving
for name in $(names); do zncctl rmi "$name" >/dev/null; done
check 'everything can be removed' test "$(names)/$(blobs)" = /0
zncctl storage gc -q

# ---------------------------------------------------------------- a full disk
mkdir "$work/small"
mount -t tmpfs -o size=16m,mode=755 tmpfs "$work/small"
export ZNC_BASE=$work/small
for name in full another third; do zncctl import -q "oci:$work/layout:latest" "$name"; done
# fill: uses up all space.
fill() { cat /dev/zero >>"$work/small/filling" 2>/dev/null || true; }
fill
before=$(names)
run zncctl tag full more
check 'nothing can be added on a full disk' test "$status/$(names)" = "1/$before"
check 'no temporary file stays' test -z "$(find "$work/small" -name '*.new')"
for name in full another third; do
    fill
    run zncctl rmi "$name"
    check "rmi $name frees space on a full disk" test "$status/$err" = 0/
done
check 'removing the images on a full disk leaves no blobs' test "$(names)/$(find "$work/small/images/blobs" -type f | wc -l)" = /0
umount "$work/small"
export ZNC_BASE=$work/storage

# ---------------------------------------------------------------- at once
zncctl import -q "$work/root" many
zncctl tag many other
mkdir "$work/runs"
for i in {1..20}; do
    name=many
    [[ $((i % 2)) = 0 ]] && name=other
    "$ZNCCTL" run --rm --name "c$i" --network none --progress none "$name" </dev/null >"$work/runs/$i" 2>&1 &
    pids[i]=$!
done
ok=0
for i in {1..20}; do wait "${pids[i]}" && ok=$((ok + 1)); done
check 'twenty containers of one image at once all run' test "$ok" = 20
check 'the layers of the image are stored once' test "$(layers)" = 1
for i in 1 2; do
    run zncctl unpack --progress none many "$work/bundle$i"
    check "the image can be unpacked beside them ($i)" test "$status" = 0
done
check 'no layer is stored again' test "$(layers)" = 1
zncctl import -q "$work/layout" layered
for i in 3 4 5; do
    run zncctl unpack --progress none layered "$work/bundle$i"
    check "an image of several layers can be unpacked ($i)" test "$status" = 0
    run zncctl create "b$i" "$work/bundle$i"
    run zncctl start -a "b$i"
    expect "each of the bundles runs ($i)" 0 'from the second layer' ''
done
zncctl rmi layered >/dev/null

# What the working directory holds does not stand in for the store.
mkdir -p "$work/here/build" "$work/here/many"
cp -r "$work/layout" "$work/here/mine"
cp -r "$work/layout" "$work/here/build/mine"
cd "$work/here" || exit 1
run zncctl image ls -f json many
check 'a directory does not replace the image of this name' test \
    "$(jq -r '.[].tag' "$work/out")" = localhost/many:latest
run zncctl run --rm --pull never --network none --progress none mine
check 'a directory is not run by a name' test "$status/$out" = 125/
check 'the hint shows how to run a directory' grep -qx \
    'zncctl: hint: there is a directory of this name: the path of the layout in it is ./mine' "$work/err"
run zncctl run --rm --network none --progress none ./mine
expect 'the command of the hint works' 0 'from the second layer' ''
run zncctl run --rm --network none --progress none build/mine:latest
expect 'a path of several directories needs no dot' 0 'from the second layer' ''
zncctl tag many build/mine
run zncctl image ls -f json build/mine
check 'an image of this name in the store takes precedence' test "$(jq -r '.[].tag' "$work/out")" = localhost/build/mine:latest
zncctl rmi build/mine >/dev/null
run zncctl import -q "$work/layout" mine
check 'import of a name goes into the store' test "$status" = 0 -a "$(zncctl images -q mine | wc -l)" = 1
zncctl rmi mine >/dev/null
cd /
pids=()
for i in {1..6}; do
    (for j in {1..5}; do
        "$ZNCCTL" tag many "t$i-$j" && "$ZNCCTL" rmi "t$i-$j"
    done) >/dev/null 2>>"$work/changes" &
    pids[i]=$!
done
"$ZNCCTL" import -q "$work/layout" another 2>>"$work/changes" &
pids[7]=$!
wait "${pids[@]}"
check 'changes at once all succeed' test ! -s "$work/changes"
check 'no concurrent change is lost' test "$(names)" = 'localhost/another:latest localhost/many:latest localhost/other:latest '

# An import that is killed leaves nothing for longer than to the next change.
killed() {
    local importer
    "$ZNCCTL" import -q "$work/root.tar" killed </dev/null >/dev/null 2>&1 &
    importer=$!
    # as soon as it has a stage, unless it is done before
    while [[ -d /proc/$importer ]] && no_stage; do :; done
    kill -s KILL "$importer" 2>/dev/null
    wait "$importer" 2>/dev/null
}
for _ in {1..5}; do killed; done
check 'a killed import leaves a whole store' store_is_whole
zncctl rmi killed >/dev/null 2>&1
mkdir "$store/.new-left"
echo left >"$work/left"
left=$store/blobs/sha256/$(sha256sum "$work/left" | cut -d ' ' -f 1)
cp "$work/left" "$left"
zncctl storage gc -q
check 'storage gc removes blobs that no image needs' test ! -e "$left"
check 'storage gc removes no other blobs' store_is_whole
zncctl import -q "$work/root" after
check 'a stage of a killed process is removed by the next command' no_stage
cp "$store/index.json" "$work/index"
for text in '{' '{"manifests":{}}' '{"manifests":[{"digest":"../../x"}]}' '{"manifests":[],"manifests":[]}'; do
    printf '%s' "$text" >"$store/index.json"
    run zncctl images
    check 'a damaged index is reported' test "$status/$out" = 1/
    run zncctl rmi after
    check 'a damaged index is not changed' test "$status/$(<"$store/index.json")" = "1/$text"
done
cp "$work/index" "$store/index.json"
printf x >>"$store/blobs/sha256/$(id_of after | cut -d : -f 2)"
run zncctl run --rm --network none after
check 'a damaged image does not run' test "$status/$out" = 125/
run zncctl run --rm --network none --progress none another
expect 'the others do' 0 'from the second layer' ''
stop_daemon
run zncctl rmi many other another after
check 'rmi needs no daemon' test "$status" = 0
check 'a damaged image is removed, too' test "$(names)/$(blobs)" = /0

finish
