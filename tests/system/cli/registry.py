#!/usr/bin/env python3
"""registry.py LAYOUT PORTFILE - serves the images of an OCI layout as a registry, without TLS.

The image with the tag T is served as NAME:T for every NAME. The port is written to PORTFILE.
"""

import http.server
import json
import os
import re
import sys

layout, port_file = sys.argv[1:]
MANIFEST = "application/vnd.oci.image.manifest.v1+json"
PATH = re.compile(r"/v2/(.+)/(manifests|blobs)/([^/]+)$")


def entries():
    with open(os.path.join(layout, "index.json"), encoding="utf-8") as index:
        return json.load(index)["manifests"]


def digest_of(reference):
    for entry in entries():
        if reference in (entry["digest"], entry["annotations"]["org.opencontainers.image.ref.name"]):
            return entry["digest"]
    return reference


class Registry(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        if self.path == "/v2/":
            self.answer(b"{}", "application/json")
            return
        found = PATH.match(self.path)
        digest = digest_of(found[3]) if found else ""
        if not re.fullmatch("sha256:[0-9a-f]{64}", digest):
            self.send_error(404)
            return
        try:
            with open(os.path.join(layout, "blobs", *digest.split(":")), "rb") as blob:
                data = blob.read()
        except FileNotFoundError:
            self.send_error(404)
            return
        manifest = found[2] == "manifests"
        kind = MANIFEST if manifest else "application/octet-stream"
        self.answer(data, kind, digest)

    do_HEAD = do_GET

    def answer(self, data, kind, digest=""):
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(data)))
        self.send_header("Docker-Content-Digest", digest)
        self.end_headers()
        if self.command == "GET":
            self.wfile.write(data)

    def log_message(self, *_):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Registry)
with open(port_file + ".new", "w", encoding="utf-8") as file:
    file.write(str(server.server_address[1]))
os.rename(port_file + ".new", port_file)
server.serve_forever()
