"""The scenes of unpacking, inspecting and deleting."""
import glob
import json
import os
import shutil
import subprocess

from scenes import fixtures
from scenes.measure import Sample, compare, figure, interleave, run

MEMORY = "/tmp/bench"  # a tmpfs of the sandbox


class Places:
    """The working directory of a scene, and the programs that it uses."""

    def __init__(self, world, on_disk=False):
        self.bin = world.bin
        self.root = world.debian_root
        self.pairs = world.pairs
        self.on_disk = on_disk
        self.work = world.disk if on_disk else MEMORY
        shutil.rmtree(self.work, ignore_errors=True)
        os.makedirs(self.work)
        os.environ["ZNC_BASE"] = f"{self.work}/base"

    def path(self, name):
        return f"{self.work}/{name}"

    def fresh(self, name):
        """A path that does not exist."""
        path = self.path(name)
        shutil.rmtree(path, ignore_errors=True)
        return path

    def settle(self):
        """Writes to disk what earlier sides have left, so that no side waits for the data of another."""
        if self.on_disk:
            os.sync()

    def cold_store(self):
        for device in glob.glob("/overlay/*"):
            subprocess.run(["umount", device], stderr=subprocess.DEVNULL, check=False)
            shutil.rmtree(device)
        self.fresh("base")

    def unpack(self, layout, tag, keep_store=False):
        bundle = self.fresh("ours")
        if not keep_store:
            self.cold_store()
        self.settle()
        return run(f"{self.bin}/zncctl", "unpack", "--os", "linux", "--tag", tag, layout, bundle)

    def peak(self, *words):
        """The peak memory of zncctl in KiB."""
        out = subprocess.run([f"{self.bin}/bench_commands", "peak", f"{self.bin}/zncctl", *words],
                             check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        return int(out)

    def unpack_peak(self, layout, tag):
        self.cold_store()
        return self.peak("unpack", "--os", "linux", "--tag", tag, layout, self.fresh("ours"))

    def umoci(self, layout, tag):
        target = self.fresh("umoci")
        self.settle()
        return run("umoci", "unpack", "--image", f"{layout}:{tag}", target)

    def bsdtar(self, layers):
        target = self.fresh("bsdtar")
        os.mkdir(target)
        self.settle()
        total = Sample(0.0)
        for layer in layers:
            one = run("bsdtar", "-xzf", layer, "-C", target)
            total = Sample(total.wall + one.wall, total.cpu + one.cpu)
        return total

    def floor(self, hashed, extracted):
        """Hashes all of `hashed`, then extracts each of `extracted` into a directory of its own."""
        target = self.fresh("floor")
        os.mkdir(target)
        argv = [f"{self.bin}/floor_unpack"]
        for blob in hashed:
            argv += ["--hash", blob]
        for number, layer in enumerate(extracted):
            os.mkdir(f"{target}/{number}")
            argv += ["--extract", layer, f"{target}/{number}"]
        self.settle()
        return run(*argv)

    def clear(self):
        self.cold_store()
        shutil.rmtree(self.work, ignore_errors=True)


def one_layer(places, limits):
    layout = places.path("image")
    fixtures.single_layer(places.root, layout)
    layers, others = fixtures.blob_paths(layout, "single")
    samples = interleave({
        "ours": lambda: places.unpack(layout, "single"),
        "umoci": lambda: places.umoci(layout, "single"),
        "bsdtar": lambda: places.bsdtar(layers),
        "floor": lambda: places.floor(others + layers, layers),
    }, places.pairs)
    places.clear()
    return compare(samples, limits)


def u1(world):
    """unpack one layer, tmpfs"""
    return one_layer(Places(world), {"umoci": 0.40, "bsdtar": 0.45, "floor": 1.10})


def u2(world):
    """unpack one layer, disk"""
    return one_layer(Places(world, on_disk=True), {"umoci": 0.60, "bsdtar": 0.90, "floor": None})


def u6(world):
    """unpack one layer, tmpfs, one processor"""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    return one_layer(Places(world), {"umoci": None, "bsdtar": 0.65, "floor": 1.10})


def u3(world):
    """unpack 8 layers, cold store"""
    places = Places(world)
    layout = places.path("image")
    fixtures.layered(places.root, layout)
    shared = fixtures.Layout(places.path("first"))
    shutil.copytree(layout, shared.path, dirs_exist_ok=True)
    only_first(shared.path)
    layers, others = fixtures.blob_paths(shared.path, "first")
    samples = interleave({
        "ours": lambda: places.unpack(shared.path, "first"),
        "umoci": lambda: places.umoci(shared.path, "first"),
        "bsdtar": lambda: places.bsdtar(layers),
        "floor": lambda: places.floor(others + layers, layers),
    }, places.pairs)
    result = compare(samples, {"umoci": 0.30, "bsdtar": None, "floor": None})
    ours = result["sides"]["ours"]
    result["goals"].append(figure("cores used", ours["cpu"] / ours["wall"], None))
    places.clear()
    return result


def only_first(layout):
    """Removes the second image from the index."""
    path = f"{layout}/index.json"
    with open(path, encoding="ascii") as file:
        index = json.load(file)
    del index["manifests"][1:]
    with open(path, "w", encoding="ascii") as file:
        json.dump(index, file)


def u4(world):
    """second image, 7 of 8 layers shared"""
    places = Places(world)
    layout = places.path("image")
    fixtures.layered(places.root, layout)
    blobs = glob.glob(f"{layout}/blobs/sha256/*")
    layers, _ = fixtures.blob_paths(layout, "second")
    new = layers[7]

    def second():
        places.unpack(layout, "first")
        before = set(os.listdir(f"{places.work}/base/layers"))
        sample = places.unpack(layout, "second", keep_store=True)
        made = set(os.listdir(f"{places.work}/base/layers")) - before
        if made != {os.path.basename(new)}:
            raise RuntimeError(f"extracted {made}, and not just {new}")
        return sample

    samples = interleave({
        "ours": second,
        "umoci": lambda: places.umoci(layout, "second"),
        # As in every unpack, both images of the layout are verified.
        "floor": lambda: places.floor(blobs, [new]),
    }, places.pairs)
    places.clear()
    return compare(samples, {"umoci": None, "floor": 1.10})


def u5(world):
    """growth of data and of entries"""
    places = Places(world)
    # Data: same number of files, larger ones. Entries: more files of the same size.
    shapes = {"1 x data": (1000, 8192), "4 x data": (1000, 32768), "16 x data": (1000, 131072),
              "1 x entries": (1000, 512), "4 x entries": (4000, 512), "16 x entries": (16000, 512)}
    for name, shape in shapes.items():
        fixtures.synthetic(places.path(f"image, {name}"), *shape)

    def unpack(name):
        return lambda: places.unpack(places.path(f"image, {name}"), "made")

    samples = interleave({name: unpack(name) for name in shapes}, places.pairs)
    peak = max(places.unpack_peak(places.path(f"image, {name}"), "made") for name in shapes)
    result = compare(samples, {})
    wall = {name: side["wall"] for name, side in result["sides"].items()}
    result["goals"] = [
        figure("16 x data / 4 x 4", wall["16 x data"] / wall["4 x data"] / 4, 1.1),
        figure("16 x entries / 4 x 4", wall["16 x entries"] / wall["4 x entries"] / 4, 1.1),
        figure("peak memory over zncctl --version", peak - places.peak("--version"), 4096, "KiB"),
    ]
    places.clear()
    return result


def i1(world):
    """inspect a layout of 50 images"""
    places = Places(world)
    layout = places.path("layout")
    fixtures.many_images(layout, 50)

    def skopeo():
        total = Sample(0.0)
        for number in range(50):
            for how in ("--raw", "--config"):
                one = run("skopeo", "inspect", how, f"oci:{layout}:image{number}")
                total = Sample(total.wall + one.wall, total.cpu + one.cpu)
        return total

    blobs = glob.glob(f"{layout}/blobs/sha256/*")
    samples = interleave({
        "ours": lambda: run(f"{places.bin}/zncctl", "image", "inspect", layout),
        "skopeo": skopeo,
        "floor": lambda: places.floor(blobs, []),
    }, min(places.pairs, 10))
    places.clear()
    return compare(samples, {"skopeo": 0.30, "floor": None})


def x1(world):
    """delete bundles"""
    places = Places(world)
    result = {"sides": {}, "goals": []}

    def measure(name, make, limits):
        def timed(*argv):
            make(places.path("bundle"))
            return run(*argv, places.path("bundle"))

        samples = interleave({
            "ours": lambda: timed(f"{places.bin}/bench_library", "delete"),
            "rm -rf": lambda: timed("rm", "-rf"),
        }, places.pairs)
        part = compare(samples, limits)
        for side, values in part["sides"].items():
            result["sides"][f"{side}, {name}"] = values
        for goal in part["goals"]:
            result["goals"].append({**goal, "against": f"{goal['against']}, {name}"})
        return part["sides"]["ours"]["wall"]

    measure("image", lambda path: fixtures.copy_tree(places.root, f"{path}/rootfs"),
            {"rm -rf": 1.5})
    small = measure("12,500 dirs", lambda path: fixtures.deep_tree(path, 12500), {"rm -rf": 1.5})
    large = measure("50,000 dirs", lambda path: fixtures.deep_tree(path, 50000), {"rm -rf": 1.5})
    result["goals"].append(figure("50,000 dirs / 12,500 dirs / 4", large / small / 4, 1.15))
    places.clear()
    return result
