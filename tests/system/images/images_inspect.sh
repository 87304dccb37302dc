#!/usr/bin/env bash
# The inspection of real layouts says what skopeo and umoci say.
# shellcheck source=images_lib.sh
. "$(dirname "$0")/images_lib.sh"
cd "$ZNC_TEST_CACHE"

inspect_to() { driver inspect "$1" >"$2"; }

for layout in debian copied plain; do
    check "$layout is inspected" inspect_to "$layout" "$work/ours.json"
    for tag in base layers; do
        skopeo inspect --config "oci:$layout:$tag" >"$work/config.json"
        skopeo inspect --raw "oci:$layout:$tag" >"$work/manifest.json"
        umoci stat --json --image "$layout:$tag" >"$work/stat.json"
        check "the document of $layout:$tag is right" python3 - "$work" "$tag" <<'PYTHON'
import json
import os
import sys

work, tag = sys.argv[1:]
ours, config, manifest, stat = (
    json.load(open(os.path.join(work, name + ".json")))
    for name in ("ours", "config", "manifest", "stat")
)
name = "org.opencontainers.image.ref.name"
(image,) = [entry for entry in ours if entry["annotations"][name] == tag]
size = sum(layer["size"] for layer in manifest["layers"])
section = config["config"]
expected = {
    "Id": manifest["config"]["digest"],
    "RepoTags": "",
    "Created": config["created"],
    "Container": "",
    "ContainerConfig": "",
    "zncVersion": "1.0.1.6",
    "Author": config["author"],
    "Config": {"Hostname": "Zarnel", "Domainname": ""}
    | {
        key: section.get(key, "")
        for key in ("User", "ExposedPorts", "Env", "Cmd", "Entrypoint", "WorkingDir", "Image",
                    "Volumes", "OnBuild", "Labels", "StopSignal")
    },
    "Architecture": "amd64",
    "Os": "linux",
    "Size": size,
    "VirtualSize": size,
    "RootFS": config["rootfs"],
    "annotations": {name: tag},
}
for key in expected.keys() | image.keys():
    if expected.get(key) != image.get(key):
        print(f"{key}: {image.get(key)!r}, expected {expected.get(key)!r}")
if list(image) != list(expected):
    sys.exit(f"members {list(image)}")
# umoci lists what made the layers; those that hold something have a size.
described = sum((entry.get("layer") or {}).get("size", 0) for entry in stat["history"])
if described != size:
    sys.exit(f"umoci stat says {described} bytes, not {size}")
sys.exit(expected != image)
PYTHON
    done
done
finish
