#!/usr/bin/env bash
# images_fixture.sh - makes the image layouts that the images_*.sh tests read, in ZNC_TEST_CACHE; what is
# there already is kept. Needs root, umoci, skopeo, debootstrap and a Debian mirror (that of apt).
#
#   root             a Debian system as debootstrap makes it
#   debian:base      one gzip layer that holds it, written by umoci
#   debian:layers    two more: a change to the tree written by umoci, and an archive added as it is
#   copied:*         the same, copied by skopeo
#   plain:*          the same, copied by skopeo with the layers decompressed
#
# Nothing had to be taken out of the tree: all its names and link targets fit a ustar header. The layers
# are made with `umoci repack`, since `umoci insert` writes archives without an end marker.
set -euo pipefail

ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-${ZNC_TEST_CACHE_DEFAULT:?the directory for the layouts}}
mkdir -p "$ZNC_TEST_CACHE"
cd "$ZNC_TEST_CACHE"

# Suites of several builds may share the directory.
exec {making}>fixture.lock
flock --timeout 1500 "$making" || {
    printf 'images_fixture.sh: somebody else has been making the layouts for too long\n' >&2
    exit 1
}

for tool in umoci skopeo debootstrap python3 unshare; do
    command -v "$tool" >/dev/null || {
        printf 'images_fixture.sh: %s is not installed\n' "$tool" >&2
        exit 1
    }
done

# The mirror that apt uses, in either of the formats of its lists.
mirror() {
    local found
    found=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
        /etc/apt/sources.list.d/*.sources 2>/dev/null |
        sed -nE 's/^(deb[[:space:]]+(\[[^]]*\][[:space:]]+)?|URIs:[[:space:]]*)([^[:space:]]+).*/\3/p' |
        grep -v security | head -n 1) || found=
    printf '%s\n' "${found:-http://deb.debian.org/debian}"
}

if [[ ! -e root.done ]]; then
    rm -rf root
    # Mounts that debootstrap makes go with the namespace, whatever happens.
    unshare --mount -- debootstrap --variant=minbase bookworm root "$(mirror)" >debootstrap.log 2>&1 || {
        tail -n 20 debootstrap.log >&2
        exit 1
    }
    touch root.done
fi

if [[ ! -e layouts.done ]]; then
    rm -rf debian copied plain directory bundle extra extra.tar
    {
        umoci init --layout debian
        umoci new --image debian:base
        umoci unpack --image debian:base bundle
        cp -a root/. bundle/rootfs/
        umoci repack --image debian:base bundle
        umoci config --image debian:base --os linux --architecture amd64 --author 'A. Uthor' \
            --config.user 1000:100 --config.env LANG=C --config.workingdir /srv \
            --config.entrypoint /bin/sh --config.cmd -c --config.cmd true \
            --config.exposedports 80/tcp --config.label com.example.role=test \
            --config.label com.quenmark.zarnel.rtp.rtpPriority=50 --config.stopsignal SIGTERM \
            --config.volume /data:/mnt/data:rw,nosuid:bind

        rm -rf bundle
        umoci unpack --image debian:base bundle
        printf 'changed\n' >bundle/rootfs/etc/motd.new
        mv bundle/rootfs/etc/motd.new bundle/rootfs/etc/motd # its directory changes, too
        mkdir -p bundle/rootfs/srv/www/{cgi,static}
        printf '#!/bin/sh\n' >bundle/rootfs/srv/www/cgi/run
        chmod 0750 bundle/rootfs/srv/www/cgi/run
        head -c 300000 /dev/urandom >bundle/rootfs/srv/www/static/big
        : >bundle/rootfs/srv/www/static/empty
        ln -s ../static/big bundle/rootfs/srv/www/cgi/big
        umoci repack --image debian:layers bundle

        mkdir -p extra/opt/extra
        printf 'added as it is\n' >extra/opt/extra/file
        ln -s /opt/extra/file extra/opt/extra/absolute
        touch -d 2001-02-03T04:05:06Z extra/opt/extra/file extra/opt/extra extra/opt
        tar --format=ustar --owner=0 --group=0 --numeric-owner -C extra -cf extra.tar opt
        umoci raw add-layer --image debian:layers extra.tar

        for tag in base layers; do
            skopeo copy --insecure-policy "oci:debian:$tag" "oci:copied:$tag"
            skopeo copy --insecure-policy --dest-decompress "oci:debian:$tag" "dir:directory"
            skopeo copy --insecure-policy --dest-oci-accept-uncompressed-layers dir:directory \
                "oci:plain:$tag"
            rm -rf directory
        done
    } >layouts.log 2>&1 || {
        tail -n 20 layouts.log >&2
        exit 1
    }
    rm -rf bundle extra extra.tar
    touch layouts.done
fi

# The layouts are what their names say.
media_types() {
    python3 - "$1" <<'PYTHON'
import json, os, sys
layout = sys.argv[1]
read = lambda *path: json.load(open(os.path.join(layout, *path)))
for entry in read("index.json")["manifests"]:
    manifest = read("blobs", *entry["digest"].split(":"))
    for layer in manifest["layers"]:
        print(layer["mediaType"].removeprefix("application/vnd.oci.image.layer.v1."))
PYTHON
}
[[ $(media_types debian | sort | uniq -c | tr -s ' ') == ' 4 tar+gzip' ]]
[[ $(media_types copied | sort | uniq -c | tr -s ' ') == ' 4 tar+gzip' ]]
[[ $(media_types plain | sort | uniq -c | tr -s ' ') == ' 4 tar' ]]
printf 'ok - layouts made by umoci, copied and decompressed by skopeo\n'
