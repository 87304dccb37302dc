"""The scene of importing: converting an image of another tool so that it can be unpacked."""
import gzip
import os

from scenes import fixtures
from scenes.images import Places
from scenes.measure import Sample, compare, figure, interleave, run


def added(*samples):
    return Sample(sum(s.wall for s in samples), sum(s.cpu for s in samples))


def gzip_size(path):
    """The size of the archive of a compressed layer after `gzip -6`."""
    with gzip.open(path) as layer:
        return len(gzip.compress(layer.read(), 6, mtime=0))


def c1(world):
    """import one layer"""
    places = Places(world)
    os.environ["TMPDIR"] = places.work
    source = places.path("image")
    fixtures.single_layer(places.root, source)

    def ours():
        return run(f"{places.bin}/zncctl", "import", f"oci:{source}:single", places.fresh("imported"))

    def unpacked():
        copied, bundle = places.fresh("copied"), places.fresh("bundle")
        return added(run("skopeo", "copy", "--insecure-policy", f"oci:{source}:single", f"oci:{copied}:single"),
                     run("umoci", "unpack", "--image", f"{copied}:single", bundle))

    # The tree becomes the only layer of a new image, as in an import.
    def one_layer():
        copied, new = places.path("copied"), places.fresh("new")
        total = added(unpacked(), run("umoci", "new", "--image", f"{copied}:packed"),
                      run("umoci", "unpack", "--image", f"{copied}:packed", new))
        os.rmdir(f"{new}/rootfs")
        os.rename(f"{places.path('bundle')}/rootfs", f"{new}/rootfs")
        return added(total, run("umoci", "repack", "--image", f"{copied}:packed", new))

    # The repack finds nothing new and writes an empty layer.
    def no_layer():
        return added(unpacked(), run("umoci", "repack", "--image", f"{places.path('copied')}:packed",
                                     places.path("bundle")))

    samples = interleave({
        "ours": ours,
        "skopeo+umoci": one_layer,
        "nothing repacked": no_layer,
    }, places.pairs)
    result = compare(samples, {"skopeo+umoci": 0.25, "nothing repacked": None})
    ours()
    layers, _ = fixtures.blob_paths(places.path("imported"), "single")
    size = os.path.getsize(layers[0])
    result["goals"].append(figure("size / gzip -6", size / gzip_size(layers[0]), 1.10))
    places.clear()
    return result
