#!/usr/bin/env python3
"""powerloss_test.py ZNCCTL ZNCD - what a loss of power leaves of the storage base and of new layouts.

The storage base lies in an ext4 file system on a loop device, whose file is copied again and again
(reflinks on XFS: each copy is made at once) while images are unpacked, imported and collected, and
for some seconds after each. A copy is what the disk would hold had the power been cut then. Each is
mounted, which replays its journal, and what has a final name there must be whole: layers, merged
trees, bundles, layouts. Then the image is unpacked again into what was left.

Needs a sandbox, mkfs.ext4 and mkfs.xfs. The last line is "N passed, N failed".
"""

import fcntl
import gzip
import hashlib
import io
import json
import os
import random
import shutil
import subprocess
import sys
import tarfile
import tempfile
import time

FICLONE = 0x40049409
DURING = 8  # copies that are looked at of those made while an operation runs
AFTER = (0.3, 1.2, 2.5, 5.0)  # seconds after its end: the file system writes late what was not synced
WANTED = 50

zncctl, zncd = (os.path.abspath(path) for path in sys.argv[1:3])
work = tempfile.mkdtemp(prefix="powerloss.")
outer, disk, check = (os.path.join(work, name) for name in ("outer", "disk", "check"))
image = os.path.join(outer, "disk.img")
passed = failed = 0


def report(good, name, problems=()):
    global passed, failed
    passed, failed = passed + bool(good), failed + (not good)
    print(("ok - " if good else "not ok - ") + name, flush=True)
    for problem in () if good else list(problems)[:5]:
        print("  " + problem, flush=True)


def run(*words, **options):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


# ---- the image


def make_layer(random_bytes, number):
    raw = io.BytesIO()
    with tarfile.open(fileobj=raw, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for name in [f"layer{number}", *(f"layer{number}/d{n}" for n in range(6))]:
            directory = tarfile.TarInfo(name)
            directory.type, directory.mode = tarfile.DIRTYPE, 0o755
            tar.addfile(directory)
        for n in range(120):
            member = tarfile.TarInfo(f"layer{number}/d{n // 20}/f{n}")
            content = random_bytes.randbytes(random_bytes.randrange(1, 30000))
            member.size, member.mode = len(content), 0o644
            tar.addfile(member, io.BytesIO(content))
    return raw.getvalue()


def write_blob(layout, content, media_type):
    digest = hashlib.sha256(content).hexdigest()
    with open(f"{layout}/blobs/sha256/{digest}", "wb") as file:
        file.write(content)
    return {"mediaType": f"application/vnd.oci.image.{media_type}", "digest": f"sha256:{digest}", "size": len(content)}


def make_layout(layout):
    os.makedirs(layout + "/blobs/sha256")
    source = random.Random(7)
    plain = [make_layer(source, n) for n in range(3)]
    layers = [write_blob(layout, gzip.compress(text, 1), "layer.v1.tar+gzip") for text in plain]
    config = {
        "architecture": "amd64",
        "os": "linux",
        "config": {"Cmd": ["/bin/true"], "WorkingDir": "/"},
        "rootfs": {"type": "layers", "diff_ids": ["sha256:" + hashlib.sha256(text).hexdigest() for text in plain]},
    }
    manifest = {
        "schemaVersion": 2,
        "config": write_blob(layout, json.dumps(config).encode(), "config.v1+json"),
        "layers": layers,
    }
    index = {"schemaVersion": 2, "manifests": [write_blob(layout, json.dumps(manifest).encode(), "manifest.v1+json")]}
    for name, text in (("oci-layout", {"imageLayoutVersion": "1.0.0"}), ("index.json", index)):
        with open(f"{layout}/{name}", "w", encoding="utf-8") as file:
            json.dump(text, file)
    return [layer["digest"].split(":")[1] for layer in layers], plain


def files_of(tree):
    """Path: (mode, content) of everything below a directory."""
    found = {}
    for top, directories, names in os.walk(tree):
        for name in directories + names:
            path = os.path.join(top, name)
            info = os.lstat(path)
            text = b""
            if not os.path.isdir(path):
                with open(path, "rb") as file:
                    text = hashlib.sha256(file.read()).digest()
            found[os.path.relpath(path, tree)] = (info.st_mode, text)
    return found


def files_in(plain):
    found = {}
    with tarfile.open(fileobj=io.BytesIO(plain)) as tar:
        for member in tar:
            kind = 0o040000 if member.isdir() else 0o100000
            text = b"" if member.isdir() else hashlib.sha256(tar.extractfile(member).read()).digest()
            found[member.name] = (kind | member.mode, text)
    return found


# ---- copies of the disk


class Camera:
    """Copies the disk's file; `keep` of those made since the last call are left."""

    def __init__(self):
        self.file = os.open(image, os.O_RDONLY)
        self.count = 0
        self.kept = []

    def shoot(self):
        path = f"{outer}/copy-{self.count}"
        self.count += 1
        with open(path, "wb") as copy:
            fcntl.ioctl(copy, FICLONE, self.file)
        return path

    def keep(self, name, shots, most):
        step = max(1, len(shots) / most)
        chosen = {shots[int(n * step)] for n in range(min(most, len(shots)))}
        for path in shots:
            if path not in chosen:
                os.unlink(path)
        self.kept += [(name, path) for path in sorted(chosen, key=lambda p: int(p.rsplit("-", 1)[1]))]


def shoot_during(camera, name, words, environment):
    with tempfile.TemporaryFile() as said:
        process = subprocess.Popen(words, env=environment, stdout=said, stderr=said)
        shots = []
        while process.poll() is None:
            shots.append(camera.shoot())
        said.seek(0)
        report(process.returncode == 0, f"{name} succeeds", [said.read().decode(errors="replace")])
    camera.keep(name, shots, DURING)
    end = time.monotonic()
    for seconds in AFTER:
        time.sleep(max(0.0, end + seconds - time.monotonic()))
        camera.keep(f"{name}, {seconds} s later", [camera.shoot()], 1)


# ---- what a copy holds


def whole_names(area):
    return [n for n in os.listdir(area) if not n.startswith(".")] if os.path.isdir(area) else []


def problems_of_store(layers, merged):
    problems = []
    for name in whole_names(check + "/store/layers"):
        if name not in layers:
            problems.append(f"layers/{name}: no layer of the image")
        elif files_of(f"{check}/store/layers/{name}") != layers[name]:
            problems.append(f"layers/{name} is not whole")
    for name in whole_names(check + "/store/flattened"):
        tree = f"{check}/store/flattened/{name}"
        if os.path.isdir(tree) and files_of(tree) != merged:
            problems.append(f"flattened/{name} is not whole")
    return problems


def problems_of_bundle(bundle, layers):
    file = bundle + "/config.json"
    if not os.path.exists(file):
        return []
    try:
        with open(file, encoding="utf-8") as text:
            root = json.load(text)["root"]["path"]
    except (ValueError, KeyError) as problem:
        return [f"{file}: {problem}"]
    if root.startswith("/overlay/"):
        missing = [name for name in layers if not os.path.isdir(f"{check}/store/layers/{name}")]
        return [f"{file} needs the layer {name}, which is not there" for name in missing]
    there = os.path.isdir(root.replace(disk, check, 1))
    return [] if there else [f"{file} names {root}, which is not there"]


def problems_of_layout(layout):
    if not os.path.exists(layout + "/index.json"):
        return []
    try:
        with open(layout + "/index.json", encoding="utf-8") as text:
            todo = json.load(text)["manifests"]
        problems = []
        while todo:
            described = todo.pop()
            name = described["digest"].split(":")[1]
            with open(f"{layout}/blobs/sha256/{name}", "rb") as file:
                content = file.read()
            if hashlib.sha256(content).hexdigest() != name:
                problems.append(f"blob {name} is damaged")
            elif "manifest" in described["mediaType"]:
                manifest = json.loads(content)
                todo += [manifest["config"], *manifest["layers"]]
        return problems
    except (OSError, ValueError, KeyError) as problem:
        return [f"{layout}: {problem}"]


def unpack_again(environment, merged):
    result = subprocess.run(
        [zncctl, "unpack", "--os", "linux", "--flatten", work + "/layout", check + "/again"],
        env={**environment, "ZNC_BASE": check + "/store"},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
    )
    if result.returncode != 0:
        return ["unpacking again: " + result.stdout.decode(errors="replace")]
    with open(check + "/again/config.json", encoding="utf-8") as text:
        root = json.load(text)["root"]["path"]
    return [] if files_of(root) == merged else ["unpacking again gives a tree that is not whole"]


def look_at(number, name, path, environment, layers, merged):
    run("mount", "-o", "loop", path, check)
    try:
        problems = problems_of_store(layers, merged)
        for bundle in ("layered", "merged"):
            problems += problems_of_bundle(f"{check}/{bundle}", layers)
        problems += problems_of_layout(check + "/imported")
        problems += unpack_again(environment, merged)
    finally:
        run("umount", check)
        os.unlink(path)
    report(not problems, f"copy {number}, {name}: what is there is whole", problems)


# ---- the run


def missing_tool():
    for tool in ("mkfs.xfs", "mkfs.ext4", "mount"):
        if shutil.which(tool, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") is None:
            return tool + " is not installed"
    return None if os.path.exists("/dev/loop-control") else "there are no loop devices"


def make_disk():
    for directory in (outer, disk, check):
        os.mkdir(directory)
    for path, size, maker, place in (
        (work + "/outer.img", 2 << 30, ["mkfs.xfs", "-q", "-m", "reflink=1"], outer),
        (image, 192 << 20, ["mkfs.ext4", "-q"], disk),
    ):
        with open(path, "wb") as file:
            file.truncate(size)
        run(*maker, path)
        run("mount", "-o", "loop,commit=1" if place == disk else "loop", path, place)


def wait_for_daemon():
    for _ in range(600):
        if subprocess.run([zncctl, "ping"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0:
            return
        time.sleep(0.1)
    raise RuntimeError("the daemon does not answer")


def shoot_all(camera, environment):
    unpack = [zncctl, "unpack", "--os", "linux", work + "/layout"]
    shoot_during(camera, "a layered unpack", [*unpack, disk + "/layered"], environment)
    shoot_during(camera, "a flattened unpack", [*unpack, "--flatten", disk + "/merged"], environment)
    shutil.rmtree(disk + "/merged")
    shoot_during(camera, "a flattened unpack again", [*unpack, "--flatten", disk + "/merged"], environment)
    shoot_during(camera, "an import", [zncctl, "import", "oci:" + work + "/layout", disk + "/imported"], environment)
    shutil.rmtree(disk + "/merged")
    shoot_during(camera, "a collection", [zncctl, "storage", "gc", disk + "/layered"], environment)


def main():
    missing = missing_tool()
    if missing:
        print("skipped: " + missing)
        sys.exit(77)
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    make_disk()
    names, plain = make_layout(work + "/layout")
    layers = {name: files_in(text) for name, text in zip(names, plain)}
    merged = {path: entry for files in layers.values() for path, entry in files.items()}
    environment = {**os.environ, "ZNC_BASE": disk + "/store"}
    daemon = subprocess.Popen([zncd], env=environment, stderr=subprocess.DEVNULL)  # for the collection
    try:
        wait_for_daemon()
        camera = Camera()
        shoot_all(camera, environment)
    finally:
        daemon.terminate()
        daemon.wait()
    report(len(camera.kept) >= WANTED, f"the disk was copied at {len(camera.kept)} points")
    for number, (name, path) in enumerate(camera.kept):
        look_at(number, name, path, environment, layers, merged)
    print(f"{passed} passed, {failed} failed")
    sys.exit(1 if failed else 0)


def clean_up():
    for place in os.listdir("/overlay") if os.path.isdir("/overlay") else []:
        subprocess.run(["umount", "/overlay/" + place], stderr=subprocess.DEVNULL, check=False)
    for place in (check, disk, outer):
        subprocess.run(["umount", place], stderr=subprocess.DEVNULL, check=False)
    shutil.rmtree(work, ignore_errors=True)


try:
    main()
finally:
    clean_up()
