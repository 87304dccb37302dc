#!/usr/bin/env bash
# Imports images built by buildah, in both archive formats that it writes.
# shellcheck source=cli_import_lib.sh
. "$(dirname "$0")/cli_import_lib.sh"
need buildah
need busybox
need umoci

cd "$work" || exit 1
printf '{"default": [{"type": "insecureAcceptAnything"}]}' >policy.json
buildah() {
    command buildah --root "$work/containers" --runroot "$work/runtime" --storage-driver vfs "$@"
}

mkdir context
cp "$(command -v busybox)" context/busybox
cat >context/Containerfile <<'END'
FROM scratch
COPY busybox /bin/busybox
RUN ["/bin/busybox", "sh", "-c", "for a in sh ls cat mkdir rm ln chmod; do /bin/busybox ln /bin/busybox /bin/$a; done"]
RUN mkdir -p /srv/d/e /opt/gone && echo one >/srv/one && echo two >/srv/d/e/two && ln -s one /srv/link
RUN rm -r /srv/d /opt/gone && mkdir /srv/d && echo new >/srv/d/new && rm /srv/link && mkdir /srv/link
RUN ln /srv/one /srv/also && chmod 0751 /srv && chmod u+s /bin/ls
ENV GREETING=hello
LABEL org.example.kept=yes
USER 1000:100
CMD ["/bin/cat", "/srv/one"]
END
buildah bud --isolation chroot --layers --signature-policy policy.json -t built context >build.log 2>&1 || {
    printf 'skipped: buildah does not run here: %s\n' "$(tail -n 1 build.log)"
    cd / && rm -rf "$work"
    exit 77
}
quietly buildah push --signature-policy policy.json built oci-archive:built.oci.tar:one
quietly buildah push --signature-policy policy.json built docker-archive:built.docker.tar:example.com/built:one
mkdir layout
tar -C layout -xf built.oci.tar
quietly umoci raw unpack --image layout:one expected
check 'the build has whiteouts' grep -q '\.wh\.' <(
    for blob in layout/blobs/sha256/*; do tar -tzf "$blob" 2>/dev/null; done
)

for archive in built.oci.tar built.docker.tar; do
    imports "$archive" "$archive"
    same "$archive" "$work/expected" --untimed-directories
    check "$archive: hard links over layers are one file's" test "$(losses hardlink-linked)" -gt 0 -o \
        "$(losses hardlink-copied)" -gt 0
    check "$archive: the set-id bit is lost" test "$(losses set-id)" -gt 0
done
start_daemon
for image in image1 image2; do
    run zncctl run --rm --os linux "$layout:$image"
    check "a container runs from $image" test "$status/$out" = 0/one
done
run zncctl unpack --os linux --tag image1 --progress none "$layout" "$work/bundle"
check 'its user and environment are those of the build' python3 -c 'import json, sys
process = json.load(open(sys.argv[1]))["process"]
assert process["usr"] == {"uid": 1000, "gid": 100}, process
assert "GREETING=hello" in process["env"], process' "$work/bundle/config.json"

cd / || exit 1
finish
