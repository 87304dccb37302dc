"""Trees, archives, layouts and bundles used by the scenes."""
import gzip
import hashlib
import io
import json
import os
import shutil
import subprocess
import tarfile

LAYER = "application/vnd.oci.image.layer.v1.tar+gzip"


def quiet(*argv, **options):
    subprocess.run(argv, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)


class Layout:
    """An image layout written directly, for images that tools do not create."""

    def __init__(self, path):
        self.path = path
        self.manifests = []
        os.makedirs(f"{path}/blobs/sha256", exist_ok=True)

    def blob(self, content, media_type):
        digest = hashlib.sha256(content).hexdigest()
        with open(f"{self.path}/blobs/sha256/{digest}", "wb") as file:
            file.write(content)
        return {"mediaType": media_type, "digest": f"sha256:{digest}", "size": len(content)}

    def image(self, tag, layers):
        """`layers`: (descriptor, diff id) pairs, the bottom one first."""
        config = {
            "architecture": "amd64",
            "os": "linux",
            "config": {"Env": ["PATH=/bin"], "Cmd": ["/bin/true"], "Labels": {"tag": tag}},
            "rootfs": {"type": "layers", "diff_ids": [diff for _, diff in layers]},
        }
        manifest = {
            "schemaVersion": 2,
            "config": self.blob(json.dumps(config).encode(), "application/vnd.oci.image.config.v1+json"),
            "layers": [descriptor for descriptor, _ in layers],
        }
        entry = self.blob(json.dumps(manifest).encode(), "application/vnd.oci.image.manifest.v1+json")
        entry["annotations"] = {"org.opencontainers.image.ref.name": tag}
        self.manifests.append(entry)

    def finish(self):
        with open(f"{self.path}/oci-layout", "w", encoding="ascii") as file:
            json.dump({"imageLayoutVersion": "1.0.0"}, file)
        with open(f"{self.path}/index.json", "w", encoding="ascii") as file:
            json.dump({"schemaVersion": 2, "manifests": self.manifests}, file)

    def layer(self, archive):
        """A layer with an uncompressed archive, in the form expected by `image`."""
        packed = gzip.compress(archive, 6, mtime=0)
        return self.blob(packed, LAYER), "sha256:" + hashlib.sha256(archive).hexdigest()


def archive(tree):
    """A tree as a layer, uncompressed."""
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        tar.add(tree, arcname=".")
    return data.getvalue()


def copy_tree(source, target):
    """Copies a tree, including device nodes."""
    os.makedirs(target, exist_ok=True)
    quiet("cp", "-a", f"{source}/.", target)


def blob_paths(layout, tag):
    """Returns (layers, other blobs) of one image, as paths."""
    def read(descriptor):
        path = f"{layout}/blobs/{descriptor['digest'].replace(':', '/')}"
        with open(path, encoding="utf-8") as file:
            return path, json.load(file)

    with open(f"{layout}/index.json", encoding="utf-8") as file:
        entries = json.load(file)["manifests"]
    entry = next(e for e in entries if e["annotations"]["org.opencontainers.image.ref.name"] == tag)
    manifest_path, manifest = read(entry)
    config_path, _ = read(manifest["config"])
    layers = [f"{layout}/blobs/{layer['digest'].replace(':', '/')}" for layer in manifest["layers"]]
    return layers, [manifest_path, config_path]


def single_layer(root, layout):
    """Makes an image "single" with the tree `root` as its only layer, with umoci."""
    quiet("umoci", "init", "--layout", layout)
    quiet("umoci", "new", "--image", f"{layout}:single")
    quiet("umoci", "unpack", "--image", f"{layout}:single", f"{layout}.bundle")
    copy_tree(root, f"{layout}.bundle/rootfs")
    quiet("umoci", "repack", "--image", f"{layout}:single", f"{layout}.bundle")
    shutil.rmtree(f"{layout}.bundle")
    quiet("umoci", "config", "--image", f"{layout}:single", "--os", "linux", "--architecture", "amd64")
    quiet("umoci", "gc", "--layout", layout)


def add_parents(archive, root, name, added):
    parts = name.split("/")
    for depth in range(1, len(parts)):
        parent = "/".join(parts[:depth])
        if parent not in added:
            added.add(parent)
            add_member(archive, root, parent)


def add_member(archive, root, name):
    info = archive.gettarinfo(f"{root}/{name}", arcname=name)
    info.uid = info.gid = 0
    info.uname = info.gname = ""
    if info.isreg() and not info.islnk():
        with open(f"{root}/{name}", "rb") as file:
            archive.addfile(info, file)
    elif info.isdir() or info.issym():
        archive.addfile(info)


def split_tree(root, count):
    """Splits the tree `root` into `count` archives of similar size, each with all parent directories."""
    names = []
    for directory, subdirectories, files in os.walk(root):
        subdirectories.sort()
        base = os.path.relpath(directory, root)
        names += [os.path.normpath(f"{base}/{name}") for name in sorted(subdirectories + files)]
    names.sort()
    total = sum(os.lstat(f"{root}/{name}").st_size for name in names)
    archives = []
    at = size = 0
    for part in range(count):
        buffer = io.BytesIO()
        added = set()
        with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as archive:
            while at < len(names) and (size < total * (part + 1) / count or part == count - 1):
                size += os.lstat(f"{root}/{names[at]}").st_size
                add_parents(archive, root, names[at], added)
                if names[at] not in added:
                    added.add(names[at])
                    add_member(archive, root, names[at])
                at += 1
        archives.append(buffer.getvalue())
    return archives


def layered(root, path):
    """Makes images "first" and "second" of the tree `root` with 8 layers, sharing the lower 7."""
    layout = Layout(path)
    archives = split_tree(root, 8)
    layers = [layout.layer(archive) for archive in archives]
    layout.image("first", layers)
    changed = archives[7].replace(b"/bin/sh", b"/bin/SH")
    layout.image("second", layers[:7] + [layout.layer(changed)])
    layout.finish()


def noise(size, seed):
    """Bytes that compress about as well as the files of a system."""
    block = hashlib.sha512(str(seed).encode()).hexdigest().encode()
    out = bytearray()
    while len(out) < size:
        block = hashlib.sha512(block).hexdigest().encode()
        out += block * 2
    return bytes(out[:size])


def synthetic(path, files, file_size):
    """Makes an image "made" with `files` files of `file_size` bytes, 100 per directory."""
    buffer = io.BytesIO()
    content = noise(file_size, files)
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for number in range(files):
            directory = f"d{number // 100}"
            if number % 100 == 0:
                info = tarfile.TarInfo(directory)
                info.type = tarfile.DIRTYPE
                info.mode = 0o755
                archive.addfile(info)
            info = tarfile.TarInfo(f"{directory}/f{number}")
            info.size = file_size
            archive.addfile(info, io.BytesIO(content))
    layout = Layout(path)
    layout.image("made", [layout.layer(buffer.getvalue())])
    layout.finish()


def many_images(path, count):
    layout = Layout(path)
    for number in range(count):
        buffer = io.BytesIO()
        with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as archive:
            info = tarfile.TarInfo(f"file{number}")
            info.size = 256 * 1024
            archive.addfile(info, io.BytesIO(noise(info.size, number)))
        layout.image(f"image{number}", [layout.layer(buffer.getvalue())])
    layout.finish()


def deep_tree(path, directories):
    """Creates `directories` directories, 50 in each parent."""
    made = 0
    for number in range((directories + 50) // 51):
        os.makedirs(f"{path}/rootfs/d{number}")
        made += 1
        for inner in range(min(50, directories - made)):
            os.mkdir(f"{path}/rootfs/d{number}/e{inner}")
            made += 1


CONFIG = {
    "ociVersion": "1.0.0",
    "process": {
        "args": ["/bin/true"],
        "cwd": "/",
        "env": ["PATH=/bin"],
        "user": {"uid": 0, "gid": 0},
        "noNewPrivileges": True,
    },
    "root": {"path": "rootfs"},
    "linux": {"namespaces": [{"type": t} for t in ("mount", "pid", "network", "ipc", "uts", "cgroup")]},
}

QUIET = ["nosuid", "noexec", "nodev"]
# What zncd provides for every container by default and other runtimes on request.
STANDARD_MOUNTS = [
    {"destination": "/proc", "type": "proc", "source": "proc", "options": QUIET},
    {"destination": "/dev", "type": "tmpfs", "source": "tmpfs",
     "options": ["nosuid", "noexec", "mode=755", "size=65536k"]},
    {"destination": "/dev/pts", "type": "devpts", "source": "devpts",
     "options": ["nosuid", "noexec", "newinstance", "ptmxmode=0666", "mode=0620"]},
    {"destination": "/dev/shm", "type": "tmpfs", "source": "shm", "options": QUIET + ["mode=1777"]},
    {"destination": "/dev/mqueue", "type": "mqueue", "source": "mqueue", "options": QUIET},
    {"destination": "/sys", "type": "sysfs", "source": "sysfs", "options": QUIET + ["ro"]},
]


def bundle(path, program=("/bin/true",), peer=False):
    """Makes a bundle with a static busybox. `peer`: with the settings that other runtimes need."""
    for name in ("bin", "dev", "proc", "sys", "tmp", "etc"):
        os.makedirs(f"{path}/rootfs/{name}", exist_ok=True)
    shutil.copy("/bin/busybox", f"{path}/rootfs/bin/busybox")
    for applet in ("sh", "true", "sleep"):
        os.symlink("busybox", f"{path}/rootfs/bin/{applet}")
    config = json.loads(json.dumps(CONFIG))
    config["process"]["args"] = list(program)
    if peer:
        config["mounts"] = STANDARD_MOUNTS
    with open(f"{path}/config.json", "w", encoding="ascii") as file:
        json.dump(config, file)
