#!/usr/bin/env bash
# The configuration of a bundle made of a real image holds what the image says.
# shellcheck source=images_lib.sh
. "$(dirname "$0")/images_lib.sh"
cd "$ZNC_TEST_CACHE"

check 'an image is unpacked' unpack debian base "$work/bundle"
skopeo inspect --config oci:debian:base >"$work/image.json"
check 'the bundle has the expected configuration' python3 - "$work" <<'PYTHON'
import json
import os
import sys

work = sys.argv[1]
image = json.load(open(os.path.join(work, "image.json")))
bundle = json.load(open(os.path.join(work, "bundle/config.json")))
expected = {
    "ociVersion": "1.0.0",
    "process": {
        "env": image["config"]["Env"],
        "cwd": "/srv",
        "args": ["/bin/sh", "-c", "true"],
        "usr": {"uid": 1000, "gid": 100},
    },
    "root": {"path": bundle["root"]["path"], "readonly": False},
    "hostname": "Zarnel",
    "mounts": [
        {"destination": "/mnt/data", "source": "/data", "type": "bind", "options": ["rw", "nosuid"]}
    ],
    "annotations": {
        "org.opencontainers.image.exposedPorts": "80/tcp",
        "com.example.role": "test",
        "org.opencontainers.image.author": "A. Uthor",
        "org.opencontainers.image.created": image["created"],
        "org.opencontainers.image.stopSignal": "SIGTERM",
    },
    "zarnel": {"resources": {}, "rtp": {"rtpPriority": "50"}},
}
if json.dumps(bundle) != json.dumps(expected): # the order counts, too
    sys.exit(f"{json.dumps(bundle)}\nexpected {json.dumps(expected)}")
PYTHON
check 'another operating system is not found' not driver unpack --tag base debian "$work/other"
check 'another tag is not found' not unpack debian missing "$work/other"
check 'failed unpacks leave no bundle' test ! -e "$work/other"
finish
