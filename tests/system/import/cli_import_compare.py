#!/usr/bin/env python3
"""cli_import_compare.py [--untimed-directories] REPORT EXPECTED ACTUAL - compares the tree of an imported
image with what another tool made of its source, path by path.

Compared: names, types, the nine permission bits, content, link targets, and the times of files and
directories in whole seconds. They may differ only where REPORT says so: every item of it must be true of
EXPECTED, and all that EXPECTED has and an unpacked image has not must be in it.

--untimed-directories: the times of directories are not compared (the archive does not name them all).

Prints what differs, and on success how much was compared. Exit status 0 only without differences.
"""

import hashlib
import json
import os
import stat
import sys
from collections import defaultdict

OF_FILES = {"device", "fifo", "xattr", "owner", "set-id", "link-target", "dangling-link", "unrepresentable",
            "time", "hardlink-copied", "hardlink-linked", "sparse", "metadata-file"}
DROPPED = {"device", "fifo", "unrepresentable", "metadata-file", "dangling-link"}


class Entry:
    def __init__(self, root, name):
        self.path = os.path.join(root, name)
        self.info = os.lstat(self.path)
        self.kind = stat.S_IFMT(self.info.st_mode)

    def is_link(self):
        return self.kind == stat.S_IFLNK

    def facts(self):
        facts = {"type": self.kind}
        if self.is_link():
            return facts | {"target": os.readlink(self.path)}
        facts |= {"mode": oct(self.info.st_mode & 0o777), "time": int(self.info.st_mtime)}
        if self.kind == stat.S_IFREG:
            with open(self.path, "rb") as file:
                facts["content"] = hashlib.file_digest(file, "sha256").hexdigest()
        return facts

    def losses(self):
        """The changes that no import can avoid."""
        if self.kind in (stat.S_IFCHR, stat.S_IFBLK):
            return {"device"}
        if self.kind == stat.S_IFIFO:
            return {"fifo"}
        found = set()
        if self.info.st_uid != 0 or self.info.st_gid != 0:
            found.add("owner")
        if self.info.st_mode & 0o7000 and not self.is_link():
            found.add("set-id")
        if os.listxattr(self.path, follow_symlinks=False):
            found.add("xattr")
        return found


def entries_of(root):
    found = {}
    for where, directories, files in os.walk(root):
        for name in directories + files:
            path = os.path.relpath(os.path.join(where, name), root)
            found[path] = Entry(root, path)
    return found


def resolve(root, path):
    """Where a path leads to if `root` is "/": relative to it, whether that is there or not."""
    done, left, links = [], path.split("/"), 0
    while left:
        part = left.pop(0)
        if part == "..":
            done = done[:-1]
        elif part not in ("", "."):
            here = os.path.join(root, *done, part)
            if os.path.islink(here) and links < 64:
                links += 1
                target = os.readlink(here)
                done = [] if target.startswith("/") else done
                left = target.split("/") + left
            else:
                done.append(part)
    return "/".join(done)


class Comparison:
    def __init__(self, report, expected, actual):
        with open(report, encoding="utf-8") as file:
            document = json.load(file)
        self.roots = expected, actual
        self.expected, self.actual = entries_of(expected), entries_of(actual)
        self.changes = defaultdict(set)
        self.untimed = False
        for item in document["items"]:
            if item["change"] in OF_FILES:
                self.changes[item["path"]].add(item["change"])
        self.count = len(document["items"])

    def differences(self):
        for name in sorted(self.expected.keys() | self.actual.keys() | self.changes.keys()):
            if name:
                for problem in self.problems(name):
                    yield f"{name!r}: {problem}"

    def problems(self, name):
        want, have, changes = self.expected.get(name), self.actual.get(name), self.changes[name]
        if want is None:
            if have is None:
                yield from [] if "metadata-file" in changes else [f"reported ({changes}), but in no tree"]
            elif not self.is_hop(name, have):
                yield "only in the actual tree"
            return
        yield from self.untrue(want, changes)
        if changes & DROPPED:
            yield from ["was not left out"] if have is not None else []
        elif have is None:
            yield "only in the expected tree"
        elif "hardlink-linked" in changes:
            yield from self.another_name(name, want, have)
        else:
            yield from self.unequal(name, want, have, changes)

    def is_hop(self, name, have):
        """A step on the way of a link that was too long, in the directory of such steps."""
        directory, *step = name.split("/")
        is_step = have.is_link() if step else have.kind == stat.S_IFDIR
        return directory.startswith(".l") and is_step and \
            any("link-target" in changes for changes in self.changes.values())

    @staticmethod
    def untrue(want, changes):
        due = want.losses()
        for change in sorted(due - changes):
            yield f"{change} is lost and was not reported"
        for change in sorted((changes & {"device", "fifo", "owner", "set-id", "xattr"}) - due):
            yield f"{change} was reported and is not so"
        if changes & {"hardlink-copied", "hardlink-linked"} and want.info.st_nlink == 1:
            yield "reported as a hard link and is none"
        if "link-target" in changes and not want.is_link():
            yield "reported as a changed link and is none"

    def another_name(self, name, want, have):
        other = self.expected.get(resolve(self.roots[1], name))
        if not have.is_link() or os.readlink(have.path).startswith("/"):
            yield "is no relative link"
        elif other is None or other.info.st_ino != want.info.st_ino:
            yield "does not lead to another name of the file"

    def unequal(self, name, want, have, changes):
        wanted, had = want.facts(), have.facts()
        if self.untimed and want.kind == stat.S_IFDIR:
            had["time"] = wanted["time"]
        if "time" in changes:
            yield from ["its time is not 0"] if had["time"] != 0 else []
            had["time"] = wanted["time"]
        if "link-target" in changes:
            if wanted == had:
                yield "reported as changed and is equal"
            if resolve(self.roots[0], name) != resolve(self.roots[1], name):
                yield f"leads elsewhere: {had.get('target')}"
            had["target"] = wanted.get("target")
        for fact in sorted(wanted.keys() | had.keys()):
            if wanted.get(fact) != had.get(fact):
                yield f"{fact} {had.get(fact)}, expected {wanted.get(fact)}"


def main():
    arguments = sys.argv[1:]
    untimed = arguments[0] == "--untimed-directories"
    comparison = Comparison(*arguments[untimed:])
    comparison.untimed = untimed
    found = list(comparison.differences())
    for line in found[:20]:
        print(line)
    if found or not comparison.actual:
        sys.exit(f"{len(found)} differences, {len(comparison.actual)} entries")
    print(f"{len(comparison.actual)} entries equal but for {comparison.count} reported changes")


main()
