#!/usr/bin/env python3
"""cli_import_tree.py KIND DIR - makes a tree that is hard to carry in an archive. Needs root.

  plain    what every tar format holds: files, directories, links of both kinds, modes, owners
  mixed    the same with long names and targets, names that are no ASCII, a sparse file, devices,
           a FIFO, capabilities
  npm      packages in nested directories, stored once and linked by long relative targets
"""

import os
import stat
import sys

# 2001-02-03 04:05:06.789, so that a time that was not carried is noticed.
TIME = 981173106_789000000
# What a capability looks like as an extended attribute: CAP_NET_RAW, effective.
CAPABILITY = bytes.fromhex("0100000200200000000000000000000000000000")


class Tree:
    def __init__(self, root):
        self.root = root

    def path(self, name):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        return path

    def file(self, name, content="", mode=0o644, owner=0):
        path = self.path(name)
        with open(path, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        os.chown(path, owner, owner)
        os.chmod(path, mode)

    def directory(self, name, mode=0o755):
        os.makedirs(self.path(name), exist_ok=True)
        os.chmod(self.path(name), mode)

    def symlink(self, name, target):
        os.symlink(target, self.path(name))

    def link(self, name, target):
        os.link(self.path(target), self.path(name), follow_symlinks=False)

    def node(self, name, kind, major=0, minor=0):
        os.mknod(self.path(name), kind | 0o600, os.makedev(major, minor))

    def settle(self):
        """Gives everything the one time, what is inside first."""
        for where, _, names in os.walk(self.root, topdown=False):
            for name in names:
                os.utime(os.path.join(where, name), ns=(TIME, TIME), follow_symlinks=False)
            os.utime(where, ns=(TIME, TIME))


def plain(tree):
    tree.file("etc/plain", "plain\n")
    tree.file("etc/empty")
    tree.file("etc/block", "x" * 512)
    tree.file("etc/locked", "nobody reads it\n", 0o000)
    tree.file("bin/tool", "#!/bin/sh\n", 0o755)
    tree.file("bin/suid", "#!/bin/sh\n", 0o4755)
    tree.file("home/user/own", "own\n", 0o640, 1000)
    tree.file("names/with space", "1")
    tree.file("names/-dash", "2")
    tree.directory("var/tmp", 0o1777)
    tree.directory("var/hollow/deep", 0o700)
    tree.symlink("links/relative", "../etc/plain")
    tree.symlink("links/absolute", "/etc/plain")
    tree.symlink("links/nowhere", "not/there")
    tree.symlink("links/etc", "../etc")
    tree.file("hard/first", "one file of three names\n" * 100, 0o600)
    tree.link("hard/second", "hard/first")
    tree.link("zz/third", "hard/first")


def mixed(tree):
    plain(tree)
    tree.file("names/größe", "3")
    tree.file("names/two\nlines", "4")
    below = "long/" + "d" * 70 + "/" + "e" * 70
    tree.file(below + "/" + "f" * 90, "far down\n")
    tree.directory(below + "/empty-directory-with-a-name")
    tree.link(below + "/" + "g" * 90, below + "/" + "f" * 90)
    tree.symlink("links/wordy", "./" * 60 + "../etc/plain")
    with open(tree.path("data/sparse"), "wb") as file:
        file.seek(3 << 20)
        file.write(b"in the middle")
        file.truncate(8 << 20)
    tree.node("dev/null", stat.S_IFCHR, 1, 3)
    tree.node("opt/device", stat.S_IFBLK, 7, 0)
    tree.node("opt/pipe", stat.S_IFIFO)
    tree.file("bin/capable", "#!/bin/sh\n", 0o755)
    os.setxattr(tree.path("bin/capable"), "security.capability", CAPABILITY)


def npm(tree):
    """The layout of a store below node_modules, which only its own links lead into."""
    for number in range(40):
        peers = "_".join(f"@scope+peer-dependency-{i}@{number}.{i}.0" for i in range(2))
        store = f"app/node_modules/.pnpm/@company+package-{number}@1.0.{number}_{peers}/node_modules"
        package = f"{store}/@company/package-{number}"
        tree.file(f"{package}/package.json", f'{{"name": "@company/package-{number}"}}\n')
        tree.file(f"{package}/dist/esm/internal/generated/index-{number}.d.ts", "export {};\n" * 50)
        tree.symlink(f"app/node_modules/@company/package-{number}",
                     f"../{os.path.relpath(package, 'app/node_modules')}")
        if number:
            tree.symlink(f"{store}/@company/package-{number - 1}", f"../../../{tree.last}")
            tree.link(f"{package}/LICENSE", "app/LICENSE")
        else:
            tree.file("app/LICENSE", "free\n" * 200)
        tree.last = os.path.relpath(package, "app/node_modules/.pnpm")


def main():
    kind, root = sys.argv[1:]
    os.umask(0o022)
    tree = Tree(root)
    {"plain": plain, "mixed": mixed, "npm": npm}[kind](tree)
    tree.settle()


main()
