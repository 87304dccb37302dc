#!/usr/bin/env python3
"""Runs scenes, each in a sandbox of its own, and reports a table, JSON, charts, or changes.

Called by run.sh, which builds and makes the images.
"""
import argparse
import json
import os
import platform
import subprocess
import sys
import tempfile
import time

import report
import scene as scenes

HERE = os.path.dirname(os.path.abspath(__file__))
RECORDED = f"{HERE}/recorded.json"
# The scenes that take two minutes in total, and their number of pairs.
QUICK = {"U1": 5, "U3": 4, "U4": 4, "I1": 3, "L1": 5, "L2": 7, "L3": 7, "Q1": 5, "X1": 3}


def arguments():
    parser = argparse.ArgumentParser(prog="run.sh", description=__doc__)
    parser.add_argument("scenes", nargs="*", metavar="SCENE", help=" ".join(scenes.SCENES))
    parser.add_argument("--pairs", type=int, default=10, help="how often each side runs (10)")
    parser.add_argument("--quick", action="store_true",
                        help="a few scenes, compared with the recorded ratios; fails if one got worse")
    parser.add_argument("--record", action="store_true", help="record the ratios, for --quick")
    parser.add_argument("--real-time", action="store_true",
                        help="run everything at real-time priority, so that other load matters less")
    parser.add_argument("--out", help="directory for results.json and charts (BUILD/results)")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--root", required=True, help=argparse.SUPPRESS)
    args = parser.parse_args()
    args.scenes = [name.upper() for name in args.scenes]
    for name in args.scenes:
        if name not in scenes.SCENES:
            parser.error(f"no scene {name}")
    args.scheduling = "real-time" if args.real_time else "plain"
    args.out = args.out or f"{args.build}/results"
    return args


def run_scene(args, name, pairs):
    """Returns the report of the scene; "error" gives the reason if it could not be run."""
    binaries = f"{args.build}/bin"
    disk = f"{args.build}/scratch"
    started = time.monotonic()
    with tempfile.NamedTemporaryFile(dir=args.build, suffix=".json") as result:
        prefix = ["chrt", "-r", "10"] if args.real_time else []
        done = subprocess.run(
            prefix + [f"{binaries}/znc_sandbox", "--", sys.executable, f"{HERE}/scene.py", name, str(pairs), binaries,
                      args.root, disk, result.name],
            stderr=subprocess.PIPE, text=True, check=False)
        if done.returncode != 0:
            lines = done.stderr.strip().splitlines() or [f"status {done.returncode}"]
            print(done.stderr, file=sys.stderr)
            return {"title": scenes.SCENES[name].__doc__, "error": lines[-1], "sides": {}, "goals": []}
        measured = json.load(result)
    measured["seconds"] = round(time.monotonic() - started, 1)
    return measured


def version(*argv):
    try:
        done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    except OSError:
        return "not installed"
    return done.stdout.strip().splitlines()[0]


def machine():
    cpu = "unknown"
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    return {
        "kernel": ".".join(platform.release().split(".")[:2]),
        "processor": cpu,
        "processors": os.cpu_count(),
        "umoci": version("umoci", "--version"),
        "skopeo": version("skopeo", "--version"),
        "bsdtar": version("bsdtar", "--version"),
        "crun": version("crun", "--version"),
        "runc": version("runc", "--version"),
        "bwrap": version("bwrap", "--version"),
        "compiler": version("c++", "--version"),
    }


def main():
    args = arguments()
    os.makedirs(args.out, exist_ok=True)
    wanted = args.scenes or (list(QUICK) if args.quick else list(scenes.SCENES))
    results = {"machine": machine(), "pairs": args.pairs, "scheduling": args.scheduling, "scenes": {}}
    for name in wanted:
        pairs = QUICK.get(name, 3) if args.quick else args.pairs
        print(f"{name}: {scenes.SCENES[name].__doc__} ...", file=sys.stderr)
        results["scenes"][name] = run_scene(args, name, pairs)
    print(report.table(results["scenes"]))
    report.write(results, args.out, scenes.SCENES)
    if args.record:
        report.record(results, RECORDED)
    failed = any("error" in measured for measured in results["scenes"].values())
    if args.quick:
        moved, worse = report.moved(results, RECORDED)
        print(moved)
        failed = failed or worse
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
