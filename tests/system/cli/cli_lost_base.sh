#!/usr/bin/env bash
# The storage base is lost, as one in memory is when the machine restarts, while bundles elsewhere stay.
# Another image that claims the same diff IDs then gets the names of their roots: the bundles do not run
# it.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"
need busybox
need jq

# add_blob LAYOUT FILE TYPE: stores it and prints its descriptor.
add_blob() {
    local digits
    digits=$(sha256sum "$2" | cut -d ' ' -f 1)
    cp "$2" "$1/blobs/sha256/$digits"
    printf '{"mediaType":"application/vnd.oci.image.%s","digest":"sha256:%s","size":%s}' "$3" "$digits" \
        "$(stat -c %s "$2")"
}
# pack DIR: an archive of it.
pack() { tar --create --format=ustar --owner=0 --group=0 --mtime=@0 --sort=name --directory="$1" --file="$1.tar" .; }

# make_layout DIR WORD: an image of two layers, whose program prints WORD, from the upper one. Every
# image made so claims the diff IDs of the first.
make_layout() {
    local dir=$1 lower upper config
    mkdir -p "$dir/blobs/sha256" "$work/upper-$2"
    printf '{"imageLayoutVersion":"1.0.0"}' >"$dir/oci-layout"
    echo "$2" >"$work/upper-$2/word"
    pack "$work/upper-$2"
    lower=$(add_blob "$dir" "$work/lower.tar" layer.v1.tar)
    upper=$(add_blob "$dir" "$work/upper-$2.tar" layer.v1.tar)
    : "${claimed:=[$(jq .digest <<<"$lower"),$(jq .digest <<<"$upper")]}"
    printf '{"architecture":"%s","os":"linux","config":{"Entrypoint":["/bin/busybox","cat","/word"]},
        "rootfs":{"type":"layers","diff_ids":%s}}' "$architecture" "$claimed" >"$work/config"
    config=$(add_blob "$dir" "$work/config" config.v1+json)
    printf '{"schemaVersion":2,"config":%s,"layers":[%s,%s]}' "$config" "$lower" "$upper" >"$work/manifest"
    printf '{"schemaVersion":2,"manifests":[%s]}' "$(add_blob "$dir" "$work/manifest" manifest.v1+json)" \
        >"$dir/index.json"
}

# unpack LAYOUT NAME: into NAME-layered and NAME-flat.
# shellcheck disable=SC2317 # called by check
unpack() {
    zncctl unpack --os linux --progress none "$1" "$work/$2-layered" &&
        zncctl unpack --os linux --progress none --flatten "$1" "$work/$2-flat"
}
root_of() { jq -r .root.path "$1/config.json"; }

# lose_base: what a restart of the machine does where the base is in memory and /overlay is not.
lose_base() {
    local device
    stop_daemon
    for device in /overlay/*; do
        if [[ -d $device ]]; then umount "$device"; fi
    done
    rm -rf "$ZNC_BASE"
    start_daemon
}

# prints NAME WORD: both bundles run and print it.
prints() {
    local kind
    for kind in layered flat; do
        run zncctl run --rm --bundle "$work/$1-$kind"
        expect "the $kind bundle of the $1 image prints the $2 word" 0 "$2" ''
    done
}

mkdir -p "$work"/lower/{bin,proc,dev,sys}
cp "$(command -v busybox)" "$work/lower/bin/busybox"
pack "$work/lower"
make_layout "$work/image1" first
make_layout "$work/image2" second

start_daemon
check 'an image is unpacked' unpack "$work/image1" first
prints first first
lose_base
run zncctl run --rm --name gone --bundle "$work/first-layered"
check 'a bundle whose root is gone does not run' test "$status/$(error_line)" = \
    '125/gone: Container rootfs create failed'
check 'another one that claims its diff IDs is unpacked' unpack "$work/image2" second
prints second second

for kind in layered flat; do
    root=$(root_of "$work/first-$kind")
    check "the $kind bundles of both have one root" test "$root" = "$(root_of "$work/second-$kind")"
    said="The root is made of other layers than the bundle was unpacked from; unpack the image again: $root."
    run zncctl create victim "$work/first-$kind"
    expect "no container is created from the first one's $kind bundle" 1 '' \
        "$said"$'\n''zncctl: error: victim: Container rootfs create failed'
    run zncctl run --rm --name victim --bundle "$work/first-$kind"
    expect "run makes no container from the $kind bundle" 125 '' \
        "$said"$'\n''zncctl: error: victim: Container rootfs create failed'
    cp -a "$work/first-$kind" "$work/copy-$kind"
    run zncctl create victim "$work/copy-$kind"
    check "no container is created from a copy of the $kind bundle" test "$status" = 1
    rm "$work/copy-$kind/.zn-layers"
    run zncctl create older "$work/copy-$kind"
    expect "a $kind bundle without .zn-layers is not checked" 0 '' ''
    zncctl delete -q older
done
check 'nothing is left of what was refused' test "$(zncctl list -q)" = ''
check 'no directory either' test ! -e "$ZNC_BASE/containers/victim"

rm -rf "$work"/{second,copy}-*
lose_base
check 'the first image is unpacked again' unpack "$work/image1" again
prints first first
prints again first
stop_daemon

finish
