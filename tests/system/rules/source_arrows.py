#!/usr/bin/env python3
"""source_arrows.py DIR - whether the folders of DIR use only what docs/architecture.md lets them use.

The page has one row for each folder: what it may use. Compared with it are the files that each file
includes and the libraries that each folder's CMakeLists.txt links. Neither files nor folders may use
each other in a circle. Prints one line for each rule.
"""

import os
import re
import sys

ROW = re.compile(r"^\| `([\w/]+)/` \|[^|]*\| ([^|]*) \|", re.M)
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
LINKED = re.compile(r"target_link_libraries\(\s*([\w-]+)([^)]*)\)")
MADE = re.compile(r"add_(?:library|executable)\(\s*([\w-]+)")
SOURCES = (".c", ".h", ".cpp", ".hpp")
# Who may use the contracts of a folder on the left may link what the other one makes.
CONTRACTS = {
    "platform/include": {"platform/linux", "platform/posix"},
    "container/runtime/include": {"container/runtime/src"},
}


class Tree:
    def __init__(self, base):
        self.base = base
        with open(os.path.join(base, "docs/architecture.md"), encoding="utf-8") as page:
            rows = ROW.findall(page.read())
        self.rules = {folder: set(re.findall(r"`([\w/]+)/`", may)) for folder, may in rows}
        self.files = [
            os.path.relpath(os.path.join(where, name), base)
            for folder in self.rules
            for where, _, names in os.walk(os.path.join(base, folder))
            for name in names
        ]
        self.sources = [name for name in self.files if name.endswith(SOURCES)]

    def text(self, name):
        with open(os.path.join(self.base, name), encoding="utf-8") as file:
            return file.read()

    def folder_of(self, name):
        """The row that a file belongs to: the longest that fits."""
        fitting = [folder for folder in self.rules if name.startswith(folder + "/")]
        return max(fitting, key=len, default=None)

    def included(self, name):
        """The files of the tree that a file includes: beside it, else by the end of their path."""
        for text in INCLUDE.findall(self.text(name)):
            beside = os.path.normpath(os.path.join(os.path.dirname(name), text))
            if beside in self.sources:
                yield beside
                continue
            found = [file for file in self.sources if file == text or file.endswith("/" + text)]
            if len(found) > 1:
                near = [file for file in found if self.folder_of(file) == self.folder_of(name)]
                found = near or found
            yield from found

    def may_link(self, folder):
        may = self.rules[folder]
        return may.union(*(CONTRACTS[used] for used in may if used in CONTRACTS))

    def linked(self):
        """(file, folder, folder that makes the linked library) of all build files."""
        made_in, made_by = {}, {}
        builds = [name for name in self.files if os.path.basename(name) == "CMakeLists.txt"]
        for folder in set().union(*CONTRACTS.values()):
            above = os.path.join(os.path.dirname(folder), "CMakeLists.txt")
            if os.path.exists(os.path.join(self.base, above)):
                builds.append(above)
        for name in builds:
            folder = self.folder_of(name) or os.path.dirname(name) + "/src"
            for target in MADE.findall(self.text(name)):
                made_in.setdefault(target, set()).add(folder)
                made_by.setdefault(name, {})[target] = folder
        for name in builds:
            for target, words in LINKED.findall(self.text(name)):
                for word in re.findall(r"[\w-]+", words):
                    for folder in made_in.get(word, ()) if target in made_by.get(name, ()) else ():
                        yield name, made_by[name][target], folder


def circle(uses):
    """The first circle in a graph {what: {what it uses}}, as a list, or nothing."""
    done, path = set(), []

    def visit(node):
        if node in path:
            return path[path.index(node):] + [node]
        if node in done:
            return None
        path.append(node)
        for used in sorted(uses.get(node, ())):
            found = visit(used)
            if found:
                return found
        path.pop()
        done.add(node)
        return None

    for node in sorted(uses):
        found = visit(node)
        if found:
            return found
    return None


def report(rule, faults):
    print(("not ok - " if faults else "ok - ") + rule)
    for fault in faults:
        print("  " + fault)
    return not faults


def main():
    sys.setrecursionlimit(10000)
    tree = Tree(sys.argv[1])
    if not tree.sources or not tree.rules:
        sys.exit("no folders and rules found in " + sys.argv[1])
    files, folders, wrong = {}, {}, []
    for name in tree.sources:
        here = tree.folder_of(name)
        for used in set(tree.included(name)):
            there = tree.folder_of(used)
            files.setdefault(name, set()).add(used)
            if os.path.dirname(used) != os.path.dirname(name):
                folders.setdefault(os.path.dirname(name), set()).add(os.path.dirname(used))
            if there != here and there not in tree.rules[here]:
                wrong.append(f"{name} includes {used}, but {here}/ may not use {there}/")
    links = [
        f"{name}: {here}/ links a library of {there}/"
        for name, here, there in tree.linked()
        if here != there and there not in tree.may_link(here)
    ]
    round_files, round_folders = circle(files), circle(folders)
    good = [
        report("each folder includes only what it may use", sorted(wrong)),
        report("each folder links only what it may use", sorted(set(links))),
        report("no files include each other in a circle", [" -> ".join(round_files)] if round_files else []),
        report("no folders use each other in a circle", [" -> ".join(round_folders)] if round_folders else []),
    ]
    sys.exit(0 if all(good) else 1)


main()
