#!/usr/bin/env python3
"""Runs one scene in the sandbox made by bench.py and writes its measurements.

usage: scene.py NAME PAIRS BIN DEBIAN_ROOT DISK RESULT
"""
import json
import sys
from dataclasses import dataclass

from scenes import bounds, commands, containers, daemon, engines, images, importing

SCENES = {
    function.__name__.upper(): function
    for function in (images.u1, images.u2, images.u3, images.u4, images.u5, images.u6, images.i1, importing.c1,
                     bounds.l0, containers.l1, containers.l2, containers.l3, commands.l4, commands.l5,
                     commands.l6, commands.l7, commands.l8, commands.l9, commands.p1, commands.p2, containers.q1,
                     containers.s1, containers.m1, engines.e1, engines.e2, engines.e3, engines.e4, engines.e5,
                     engines.e6, daemon.d1, daemon.r1, images.x1)
}


@dataclass
class World:
    pairs: int
    bin: str
    debian_root: str
    disk: str


def main():
    name, pairs, binaries, root, disk, result = sys.argv[1:]
    scene = SCENES[name]
    measured = scene(World(int(pairs), binaries, root, disk))
    with open(result, "w", encoding="utf-8") as file:
        json.dump({"title": scene.__doc__, **measured}, file)


if __name__ == "__main__":
    main()
