#!/usr/bin/env bash
# Compares the library with umoci and skopeo on layouts that those wrote: inspection gives the same results,
# and a changed blob or size is refused if umoci refuses it. Needs UNPACK_DRIVER, umoci, skopeo and jq.
set -euo pipefail
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"

: "${UNPACK_DRIVER:?the program to test}"
for tool in umoci skopeo jq; do
    command -v "$tool" >/dev/null || {
        printf 'skipped: %s is not installed\n' "$tool"
        exit 77
    }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export ZNC_BASE=$work/storage

quietly() { "$@" >>log 2>&1; }

make_layouts() {
    umoci init --layout made
    umoci new --image made:image
    umoci unpack --image made:image bundle
    mkdir -p bundle/rootfs/etc bundle/rootfs/srv
    printf 'one\n' >bundle/rootfs/etc/one
    head -c 100000 /dev/urandom >bundle/rootfs/srv/noise
    ln -s ../etc/one bundle/rootfs/srv/link
    umoci repack --image made:image bundle
    rm -rf bundle
    umoci unpack --image made:image bundle
    printf 'two\n' >bundle/rootfs/etc/two
    umoci repack --image made:image bundle
    umoci config --image made:image --os linux --architecture amd64 --author 'A. Uthor' \
        --config.entrypoint /bin/sh --config.env A=1 --config.workingdir /srv
    umoci gc --layout made
    rm -rf bundle
    skopeo copy --insecure-policy oci:made:image oci:copied:image
    skopeo copy --insecure-policy --dest-decompress oci:made:image dir:directory
    skopeo copy --insecure-policy --dest-oci-accept-uncompressed-layers dir:directory oci:plain:image
}

ours() { "$UNPACK_DRIVER" inspect "$1" | jq -c ".[0] | $2"; }
we_unpack() {
    rm -rf ours
    quietly "$UNPACK_DRIVER" unpack --os linux --arch amd64 --tag image "$1" ours
}
they_unpack() {
    rm -rf theirs
    quietly umoci raw unpack --image "$1:image" theirs
}
path_of() { printf '%s/blobs/%s\n' "$1" "${2/:/\/}"; }
same() { [[ $1 == "$2" && -n $1 && $1 != null ]]; }

# Prints all digests of the layout $1, by name.
digest() {
    local manifest
    manifest=$(jq -r '.manifests[0].digest' "$1/index.json")
    case $2 in
    manifest) printf '%s\n' "$manifest" ;;
    config) jq -r .config.digest "$(path_of "$1" "$manifest")" ;;
    layer*) jq -r ".layers[${2#layer}].digest" "$(path_of "$1" "$manifest")" ;;
    esac
}

# refused_by_both LAYOUT WHAT: checks that neither tool unpacks the layout.
refused_by_both() {
    check "we refuse $2" not we_unpack "$1"
    check "the refused layout leaves no bundle" test ! -e ours
    check "umoci refuses the layout, too" not they_unpack "$1"
}

# Replaces the first manifest of the layout $1 by $2.
replace_manifest() {
    local sum size
    sum=$(sha256sum <"$2" | cut -d ' ' -f 1)
    size=$(stat -c %s "$2")
    cp "$2" "$1/blobs/sha256/$sum"
    jq --arg d "sha256:$sum" --argjson s "$size" '.manifests[0].digest = $d | .manifests[0].size = $s' \
        "$1/index.json" >index.new
    mv index.new "$1/index.json"
}

quietly make_layouts || {
    tail -n 20 log >&2
    exit 1
}

for layout in made copied plain; do
    raw=$(skopeo inspect --raw "oci:$layout:image")
    brief=$(skopeo inspect "oci:$layout:image")
    configuration=$(skopeo inspect --config "oci:$layout:image")
    check "$layout: the id is the digest skopeo names" \
        same "$(ours $layout .Id)" "$(jq -c .config.digest <<<"$raw")"
    check "$layout: the size is the sum skopeo names" \
        same "$(ours $layout .Size)" "$(jq -c '[.layers[].size] | add' <<<"$raw")"
    check "$layout: the size is the sum umoci names" same "$(ours $layout .Size)" \
        "$(umoci stat --image $layout:image --json | jq -c '[.history[].layer.size // 0] | add')"
    check "$layout: the layers are those umoci names" \
        same "$(skopeo inspect --raw "oci:$layout:image" | jq -c '[.layers[].digest]')" \
        "$(umoci stat --image $layout:image --json | jq -c '[.history[] | select(.layer) | .layer.digest]')"
    check "$layout: the system is the one skopeo names" \
        same "$(ours $layout '[.Os, .Architecture]')" "$(jq -c '[.Os, .Architecture]' <<<"$brief")"
    check "$layout: so are author and diff ids" same "$(ours $layout '[.Author, .RootFS.diff_ids]')" \
        "$(jq -c '[.author, .rootfs.diff_ids]' <<<"$configuration")"
    check "$layout: so are entry point, environment and directory" \
        same "$(ours $layout '[.Config.Entrypoint, .Config.Env, .Config.WorkingDir]')" \
        "$(jq -c '[.config.Entrypoint, .config.Env, .config.WorkingDir]' <<<"$configuration")"
    check "$layout: we unpack it" we_unpack $layout
    check "$layout: umoci unpacks it" they_unpack $layout
    check "$layout: into the same files" diff -r ours/rootfs theirs

    [[ $layout != copied ]] || continue # contains the same blobs as the first
    for what in layer0 layer1 config manifest; do
        rm -rf hurt
        cp -a $layout hurt
        file=$(path_of hurt "$(digest hurt $what)")
        printf '\1' | dd of="$file" bs=1 seek=40 conv=notrunc status=none
        refused_by_both hurt "$layout with one byte of its $what changed"
    done
    # umoci treats a negative size as unknown; the library refuses it.
    rm -rf hurt
    cp -a $layout hurt
    jq -c '.layers[0].size = -1' "$(path_of hurt "$(digest hurt manifest)")" >manifest.new
    replace_manifest hurt manifest.new
    check "we refuse $layout with a negative size" not we_unpack hurt
    for change in '.layers[0].size += 1' '.layers[1].size -= 1' '.config.size += 1' \
        '.layers[0].size = 0' '.config.digest = "sha256:../../../etc/passwd"' \
        '.layers[0].digest = "sha256:abc"' '.layers[0].digest = "md5:00"' '.layers[1].digest = 5'; do
        rm -rf hurt
        cp -a $layout hurt
        jq -c "$change" "$(path_of hurt "$(digest hurt manifest)")" >manifest.new
        replace_manifest hurt manifest.new
        refused_by_both hurt "$layout with $change"
    done
done
check 'nothing was stored' test ! -e "$ZNC_BASE"
finish_checks
