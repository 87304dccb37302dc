#!/usr/bin/env python3
"""make_seeds.py DIRECTORY - writes the inputs that the fuzz targets start from, in a directory each."""

import gzip
import io
import json
import pathlib
import random
import re
import struct
import sys
import tarfile
import zlib

SEPARATOR = b"\x1e"


def member(name, kind=tarfile.REGTYPE, content=b"", target="", mode=0o644, mtime=1000000000):
    info = tarfile.TarInfo(name)
    info.type, info.size, info.linkname = kind, len(content), target
    info.mode, info.mtime = mode, mtime
    return info, content


def archive(members, form=tarfile.USTAR_FORMAT):
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=form) as tar:
        for info, content in members:
            tar.addfile(info, io.BytesIO(content))
    # Two blocks of the end mark are enough; tar files are padded to 20.
    bytes_ = out.getvalue()
    return bytes_.rstrip(b"\0").ljust((len(bytes_.rstrip(b"\0")) + 511) // 512 * 512, b"\0") + bytes(1024)


def archives():
    d, l = tarfile.DIRTYPE, tarfile.SYMTYPE
    deep = "d" * 90 + "/" + "e" * 90 + "/f"
    yield "files", archive([member("a", content=b"x"), member("b", content=b"y" * 513)])
    yield "tree", archive([member("a", d, mode=0o755), member("a/b", d, mode=0o700),
                           member("a/b/c", content=b"z" * 512), member("a/l", l, target="b/c")])
    yield "links", archive([member("l", l, target="../outside"), member("l/secret", content=b"x")])
    yield "absolute", archive([member("l", l, target="/"), member("a", content=b"x"),
                               member("a", l, target="a")])
    yield "parents", archive([member("../outside/secret", content=b"x")])
    yield "retyped", archive([member("a", d), member("a", l, target="../outside"),
                              member("a/b", content=b"x")])
    yield "odd", archive([member("h", tarfile.LNKTYPE, target="a"), member("c", tarfile.CHRTYPE),
                          member("p", tarfile.FIFOTYPE), member("a", content=b"x")])
    yield "prefix", archive([member("d" * 90, d), member("d" * 90 + "/" + "e" * 90, d),
                             member(deep, content=b"x")])
    yield "gnu", archive([member("n" * 150, content=b"x")], tarfile.GNU_FORMAT)
    yield "pax", archive([member("n" * 150, content=b"x")], tarfile.PAX_FORMAT)
    yield "empty", bytes(1024)
    tree = archive([member("a", d), member("a/b", content=b"zip" * 400)])
    yield "packed", gzip.compress(tree, mtime=0)


def gzips():
    text = b"The quick brown fox jumps over the lazy dog. " * 60
    for level in (0, 1, 6, 9):
        yield f"level{level}", gzip.compress(text, level, mtime=level * 7)
    yield "empty", gzip.compress(b"", mtime=0)
    yield "zeros", gzip.compress(bytes(70000), mtime=0)
    body = zlib.compressobj(9, zlib.DEFLATED, -15, 8, zlib.Z_FIXED)
    raw = body.compress(text) + body.flush()
    tail = struct.pack("<II", zlib.crc32(text), len(text))
    flags = b"\x1f\x8b\x08\x1e\x10\x01\x00\x00\x00\x03\x04\x00abcdname\x00comment\x00\x00\x00"
    yield "flags", flags + raw + tail
    yield "cut", gzip.compress(text, mtime=0)[:-12]
    yield "two", gzip.compress(b"one", mtime=0) + gzip.compress(b"two", mtime=0)
    # Longer than what is read from a file at once, and split at its last bytes.
    noise = random.Random(1).randbytes(9000)
    yield "noise", gzip.compress(noise, mtime=0)
    for behind in (1, 3, 4, 5, 8):
        yield f"split{behind}", gzip.compress(noise[:4096 + behind - 23], 0, mtime=0)
    yield "header", b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03" + bytes(8)


SECTION = {
    "User": "0x10:20", "Env": ["PATH=/bin", "A=1"], "Entrypoint": ["/bin/app"], "Cmd": ["-v"],
    "WorkingDir": "/srv", "Volumes": {"/data": {}, "/src:/dst:ro,nosuid:bind": {}, "a:b": {}},
    "ExposedPorts": {"80/tcp": {}}, "StopSignal": "SIGTERM",
    "Labels": {"k": "v", "com.quenmark.zarnel.rtp.rtpPriority": "0x40",
               "com.quenmark.zarnel.rtp": "bare"},
}
IMAGE = {"created": "2020-01-01T00:00:00Z", "author": "x", "architecture": "amd64", "os": "zarnel",
         "config": SECTION}


def image_configs():
    yield "full", json.dumps(IMAGE).encode()
    yield "bare", b'{"config":{}}'
    yield "nothing", b"{}"
    yield "odd", b'{"config":{"User":7,"Env":"x","Volumes":[1,{"a":null}],"Labels":["x"],"Cmd":{"a":"b"}}}'
    for n, text in enumerate(("", "0", "7:8", ":5", "name:group", "0x7fffffff:-1", "010:010", "::")):
        yield f"user{n}", b"u" + text.encode()
    for n, text in enumerate(("", "/data", "/s:/d", "/s:/d:ro", "/s:/d:ro,nosuid:tmpfs", ":::", ",,",
                              "a:b:,:", "x" * 300 + ":" + "y" * 300)):
        yield f"mount{n}", b"m" + text.encode()


def layouts():
    def blob(n, kind):
        return {"mediaType": f"application/vnd.oci.image.{kind}", "digest": f"@d{n}", "size": f"@s{n}"}

    def sized(document):
        # Sizes are numbers, not texts.
        return re.sub(rb'"(@s\d)"', rb"\1", json.dumps(document).encode())

    marker = b'{"imageLayoutVersion":"1.0.0"}'
    layer = archive([member("f", content=b"x")])
    ids = ["sha256:" + "%064x" % n for n in (1, 2)]

    def image(entry, layers, blobs, config_extra=None):
        index = {"schemaVersion": 2, "manifests": [{**blob(2, "manifest.v1+json"), **entry}]}
        manifest = {"schemaVersion": 2, "config": blob(3, "config.v1+json"), "layers": layers}
        config = {**IMAGE, "rootfs": {"type": "layers", "diff_ids": ids[:len(layers)]},
                  **(config_extra or {})}
        return SEPARATOR.join([marker, sized(index), sized(manifest), sized(config), *blobs])

    one = [blob(4, "layer.v1.tar")]
    yield "plain", image({}, one, [layer])
    yield "named", image({"annotations": {"org.opencontainers.image.ref.name": "latest"},
                          "platform": {"architecture": "amd64", "os": "zarnel"}}, one, [layer])
    packed = gzip.compress(layer, mtime=0).replace(SEPARATOR, b"\x1f")
    yield "two", image({}, one + [blob(5, "layer.v1.tar+gzip")], [layer, packed])
    yield "sha512", image({}, one, [layer]).replace(b"@d4", b"@x4").replace(b"@d2", b"@x2")
    yield "elsewhere", image({}, one, [layer]).replace(b"@d4", b"sha256:../../index.json")
    yield "sizes", image({}, one, [layer]).replace(b"@s4", b"-1")
    yield "none", SEPARATOR.join([marker, b'{"schemaVersion":2,"manifests":[]}'])
    yield "marker", marker


BUNDLE = {
    "ociVersion": "1.0.0", "hostname": "Zarnel", "root": {"path": "rootfs", "readonly": False},
    "process": {"args": ["/bin/app", "-v"], "env": ["A=1"], "cwd": "/", "terminal": True},
    "zarnel": {"rtp": {"rtpPriority": "0x40", "rtpStackSize": "65536", "rtpOptions": "1",
                       "rtpTaskOptions": "2"}},
    "mounts": [{"destination": "/d", "source": "/s", "type": "bind", "options": ["ro", "nosuid"]},
               {"destination": "/e"}],
    "annotations": {"a": "b", "c": 1},
    "hooks": {"prestart": [{"path": "/bin/x", "args": ["x"], "env": ["B=2"]}],
              "poststop": {"path": "/bin/y", "args": ["y"], "env": []}},
}


def bundles():
    yield "full", json.dumps(BUNDLE).encode()
    yield "least", b'{"process":{"args":[]}}'
    yield "odd", b'{"process":{"args":{"a":1,"b":"x"},"env":"x"},"mounts":{"a":{"options":{"x":"y"}}},"hooks":[{"path":"x"}],"annotations":[1,"x"]}'
    yield "deep", b'{"process":{"args":[' + b"[" * 200 + b"]" * 200 + b"]}}"
    yield "behind", b'{"process":{"args":["x"]}} x'


RESOURCES = {
    "memory": {"limit": 1048576, "reservation": -1, "swap": 2097152, "swappiness": 60, "kernel": -1},
    "cpu": {"shares": 1024, "quota": 50000, "period": 100000, "cpus": "0-3,5", "mems": "0"},
    "pids": {"limit": 100},
    "blockIO": {"weight": 500, "throttleReadBpsDevice": [{"major": 8, "minor": 0, "rate": 1000}]},
    "hugepageLimits": [{"pageSize": "2MB", "limit": 2**64 - 1}],
    "devices": [{"allow": False, "access": "rwm"},
                {"allow": True, "type": "c", "major": 1, "minor": 3, "access": "rw"}],
}
SETTINGS = {
    "process": {
        "args": ["x"], "cwd": "/", "terminal": True, "noNewPrivileges": True, "oomScoreAdj": 5,
        "user": {"uid": 1000, "gid": 1000, "umask": 18, "additionalGids": [5, 6]},
        "capabilities": {name: ["CAP_KILL", "CAP_CHOWN"]
                         for name in ("bounding", "effective", "permitted", "inheritable", "ambient")},
        "rlimits": [{"type": "RLIMIT_NOFILE", "soft": 1024, "hard": 2**64 - 1}],
        "apparmorProfile": "a", "selinuxLabel": "u:r:t:s0",
    },
    "root": {"path": "rootfs", "readonly": True},
    "linux": {
        "namespaces": [{"type": kind} for kind in ("mount", "pid", "ipc", "uts", "cgroup", "network",
                                                   "user")],
        "uidMappings": [{"containerID": 0, "hostID": 100000, "size": 65536}],
        "gidMappings": [{"containerID": 0, "hostID": 100000, "size": 65536}],
        "devices": [{"type": "c", "path": "/dev/null", "major": 1, "minor": 3, "fileMode": 438}],
        "cgroupsPath": "/zarnel/web", "resources": RESOURCES, "rootfsPropagation": "rprivate",
        "sysctl": {"net.ipv4.ip_forward": "1", "kernel/sem": "250 32000 32 128"},
        "maskedPaths": ["/proc", "/sys"], "readonlyPaths": ["/proc/sys"],
        "seccomp": {
            "defaultAction": "SCMP_ACT_ERRNO", "defaultErrnoRet": 38,
            "architectures": ["SCMP_ARCH_X86_64"], "flags": ["SECCOMP_FILTER_FLAG_LOG"],
            "syscalls": [{"names": ["read"], "action": "SCMP_ACT_ALLOW"},
                         {"names": ["personality"], "action": "SCMP_ACT_ERRNO", "errnoRet": 1,
                          "args": [{"index": 0, "value": 8, "op": "SCMP_CMP_EQ"}]}],
        },
    },
}


def settings():
    def text(document):
        return json.dumps(document, separators=(",", ":")).encode()

    yield "full", text(SETTINGS)
    yield "bundle", text(BUNDLE)
    yield "resources", text(RESOURCES)
    for name, section in SETTINGS["linux"].items():
        yield f"linux-{name}", text({"linux": {name: section}})
    for name, section in SETTINGS["process"].items():
        yield f"process-{name}", text({"process": {name: section}})
    yield "shared", b'{"linux":{"namespaces":[{"type":"network","path":"/run/netns/a"}]}}'
    mappings = [{"containerID": n, "hostID": n, "size": 1} for n in (0, 1)]
    yield "mappings", text({"linux": {"namespaces": [{"type": "user"}], "uidMappings": mappings,
                                      "gidMappings": mappings}})
    yield "twice", b'{"Process":{"terminal":true,"TERMINAL":false}}'
    yield "slashes", b'{"linux":{"sysctl":{"net/ipv4/conf/eth0.1/forwarding":"1","net.//.x":"1"}}}'
    yield "large", b'{"linux":{"resources":{"memory":{"limit":9007199254740993,"swap":1e999}}}}'
    yield "nul", b'{"process":{"apparmorProfile":"a\\u0000b"}}'
    yield "deep", b'{"linux":' + b"[" * 900 + b"]" * 900 + b"}"


def requests():
    def request(command, document, name=b"/znc-u-1-1", level=2):
        text = document if isinstance(document, bytes) else json.dumps(document).encode()
        head = name.ljust(192, b"\0") + struct.pack("<B3xiI", level, command, len(text))
        return head + text

    web = {"containerId": "web", "option": 0}
    yield "create", request(0, {"containerId": "new", "bundle": "/bundle", "option": 0})
    yield "start", request(1, {**web, "containerId": "a"})
    yield "kill", request(2, {**web, "signo": 9})
    yield "delete", request(3, web)
    yield "state", request(4, web)
    yield "list", request(5, {})
    yield "inspect", request(7, {"Id": "web"})
    yield "store", request(8, {"containerId": "web", "handle": 12})
    yield "alive", request(9, {}).ljust(2048, b"\0")
    yield "odd", request(2, b'{"containerId":7,"signo":"x","option":[1]}')
    yield "unknown", request(-1, b"x")
    yield "elsewhere", request(4, web, b"/znc")
    yield "short", request(4, web)[:150]


def replies():
    def line(errno, body):
        return json.dumps({"errno": errno, "body": body}).encode() + b"\n"

    start = {"appPath": "/b/app", "arg": ["app", "x"], "env": ["A=1"], "option": 0, "priority": 100,
             "stackSize": 8192, "taskOption": 0, "nsId": 4, "cwd": "/", "posixFlags": 384}
    state = {"ociVersion": "1.0.0", "id": "web", "status": 2, "bundle": "/bundle"}
    for call in range(9):
        yield f"ok{call}", bytes([call]) + line(0, [start if call == 1 else state]) + line(0, [])
        yield f"fails{call}", bytes([call]) + line(19, [])
    yield "long", b"\x05" + line(0, [{"text": "x" * 6000}])
    yield "odd", b"\x01" + line(0, [{"arg": "x", "env": [1, None], "appPath": 7, "cwd": "x"}])
    yield "mixed", b"\x01" + line(0, [{"appPath": "/b", "arg": ["x", 7], "nsId": 1}])
    head = bytes(192) + struct.pack("<B3xiI", 0, 4, 3000)
    yield "pieces", b"\x80" + struct.pack(">H", 2048) + head.ljust(2048, b"x") + b"\0\x10" + b"y" * 16
    yield "raw", b"\x84" + struct.pack(">H", 206) + head[:200] + struct.pack("<I", 2) + b"{}"


def paths():
    for n, text in enumerate((b"a/b", b"/a//./b/", b"../x", b"a\\b\\..", b"", b"./.", b"a/..b/...")):
        yield f"condense{n}", b"\x00\xff" + text
    for n, text in enumerate((b"a\0b", b"a/\0/b", b"\0b", b"///\0//", b"a\0")):
        yield f"append{n}", b"\x01\x40" + text
    yield "blob", b"\x02\xff\x02/layout\0sha256:abc"
    yield "index", b"\x02\x04\x01/layout\0"
    for n, text in enumerate((b"/znc-u-1-1", b"/znc-u--1", b"/znc", b"/znc-u-12-34x")):
        yield f"queue{n}", b"\x03\0" + text
    for n, text in enumerate((b"0000644\0", b" -17 ", b"+8", b"777777777777", b"")):
        yield f"octal{n}", b"\x04\0" + text
    for n, text in enumerate((b"\1bind\0ro,nosuid", b"\0tmpfs\0size=1m,mode=755,rw", b"\1\0rbind,rslave,dev",
                              b"\0unknown\0noatime,strictatime")):
        yield f"mount{n}", b"\x05\0" + text
    yield "texts", b"\x06\0/a/b\0/a"
    yield "hex", b"\x07\x10abc"


def names():
    yield "link", bytes([0, 1, 4, 5, 2, 1, 0, 6, 0, 1])
    yield "tree", bytes([0, 5, 2, 0, 0, 0, 2, 2, 0, 1, 0, 4, 0, 4, 4, 0, 3, 2])
    yield "layers", bytes([1, 0, 4, 0, 2, 1, 1, 0, 1, 0, 7])
    yield "retyped", bytes([2, 2, 2, 0, 0, 0, 4, 0, 2, 0, 0, 2, 0, 9, 0, 0, 2, 0, 9])


def merges():
    """The numbers are those of import_merge_fuzz.cpp: parent and name in one byte."""
    FILE, DIRECTORY, LINK, HARD_LINK, END = 0, 1, 2, 3, 15
    yield "whiteout", bytes([0, FILE, 0x10, 0, 8, FILE, 0x11, 0, 8, END, FILE, 0x17, 0, 8])
    yield "opaque", bytes([0, FILE, 0x10, 0, 8, END, FILE, 0x12, 0, 8, FILE, 0x19, 0, 8])
    yield "linked", bytes([0, LINK, 0x03, 0x01, 8, FILE, 0x40, 0, 8, END, FILE, 0x47, 0, 8])
    yield "hardlinks", bytes([1, HARD_LINK, 0x00, 0x01, 8, FILE, 0x01, 0, 136, HARD_LINK, 0x12, 0, 8])
    yield "copies", bytes([0, FILE, 0x00, 0, 136, HARD_LINK, 0x01, 0, 8, HARD_LINK, 0x02, 0, 8])
    yield "retyped", bytes([0, DIRECTORY, 0x00, 0, 8, FILE, 0x10, 0, 8, LINK, 0x00, 1, 8, FILE, 0x10, 0, 8])
    yield "store", bytes([0, HARD_LINK, 0x00, 0xf0, 8, FILE, 0xf0, 0, 8])
    yield "hops", bytes([64, DIRECTORY, 0xc3, 0, 8, LINK, 0x10, 0xd1, 9, LINK, 0x11, 0xcd, 10])
    yield "dropped", bytes([131, FILE, 0x0b, 0, 16, 4, 0x80, 0, 36, 5, 0x10, 0, 0, FILE, 0x0e, 0, 96])


TARGETS = {
    "tar_stream": archives, "extract": archives, "archive": archives, "extract_names": names, "gzip": gzips,
    "image_layout": layouts, "image_config": image_configs, "bundle_config": bundles,
    "request": requests, "reply": replies, "paths": paths,
    "import_merge": merges, "settings": settings,
}


def main():
    for target, make in TARGETS.items():
        directory = pathlib.Path(sys.argv[1]) / target
        directory.mkdir(parents=True, exist_ok=True)
        for name, content in make():
            (directory / name).write_bytes(content)


if __name__ == "__main__":
    main()
