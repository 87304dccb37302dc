#!/usr/bin/env python3
"""images_compare.py [OPTION] LAYOUT TAG EXPECTED ACTUAL - compares two unpacked trees of an image.

Compared: names, types, content, link targets, the nine permission bits, and the modification times of
files and directories. EXPECTED was made by a tool that leaves nothing out. Left out of ACTUAL by
design, and required to be missing there: hard links, devices, FIFOs. Not compared by design: owners,
set-id and sticky bits.

--in-place: the layers were extracted over one another into one directory. The time of a directory that
more than one layer names is not compared, since one that exists already is left alone and only
changes as files are made in it.
--untimed-directories: the same over a tree that was there before, so no time of a directory is compared.

Prints what differs, and on success how much was compared. Exit status 0 only without differences.
"""

import hashlib
import json
import os
import stat
import sys
import tarfile


def blob(layout, digest):
    return os.path.join(layout, "blobs", *digest.split(":", 1))


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def layers(layout, tag):
    for entry in load(os.path.join(layout, "index.json"))["manifests"]:
        if entry.get("annotations", {}).get("org.opencontainers.image.ref.name") == tag:
            manifest = load(blob(layout, entry["digest"]))
            return [blob(layout, layer["digest"]) for layer in manifest["layers"]]
    sys.exit(f"no image {tag} in {layout}")


def members(layout, tag):
    """(paths left out, directories named by more than one layer)"""
    left_out, seen, again = set(), set(), set()
    for path in layers(layout, tag):
        with tarfile.open(path) as archive:
            for member in archive:
                name = os.path.normpath(member.name).lstrip("/")
                if member.isdir():
                    (again if name in seen else seen).add(name)
                elif member.isreg() or member.issym():
                    left_out.discard(name)
                else:
                    left_out.add(name)
    return left_out, again


def content(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def describe(root):
    tree = {}
    for where, dirs, files in os.walk(root):
        for name in dirs + files:
            path = os.path.join(where, name)
            info = os.lstat(path)
            facts = {"type": stat.S_IFMT(info.st_mode)}
            if stat.S_ISLNK(info.st_mode):
                facts["target"] = os.readlink(path)
            else:
                facts["mode"] = oct(info.st_mode & 0o777)
                facts["time"] = info.st_mtime
            if stat.S_ISREG(info.st_mode):
                facts["content"] = content(path)
            tree[os.path.relpath(path, root)] = facts
    return tree


def differences(expected, actual, left_out, untimed):
    for name in sorted(left_out & actual.keys()):
        yield f"{name}: should have been left out"
    for name in sorted((expected.keys() | actual.keys()) - left_out):
        want, have = expected.get(name), actual.get(name)
        if want is None or have is None:
            yield f"{name}: only in the {'actual' if want is None else 'expected'} tree"
            continue
        for fact in sorted(want.keys() | have.keys()):
            if fact == "time" and name in untimed:
                continue
            if want.get(fact) != have.get(fact):
                yield f"{name}: {fact} {have.get(fact)}, expected {want.get(fact)}"


def main():
    arguments = sys.argv[1:]
    option = arguments.pop(0) if arguments[0].startswith("--") else None
    layout, tag, expected_root, actual_root = arguments
    left_out, again = members(layout, tag)
    expected, actual = describe(expected_root), describe(actual_root)
    untimed = {
        None: set(),
        "--in-place": again,
        "--untimed-directories": {
            name for name, facts in expected.items() if stat.S_ISDIR(facts["type"])
        },
    }[option]
    found = list(differences(expected, actual, left_out, untimed))
    for line in found[:20]:
        print(line)
    if found or not actual:
        sys.exit(f"{len(found)} differences, {len(actual)} entries")
    print(f"{len(actual)} entries equal, {len(left_out)} left out, {len(untimed)} untimed")


main()
