"""The scene of lower bounds: what other scenes cannot do without, measured with programs that do only that."""
import shutil
import subprocess

from scenes.commands import (CLIENTS, at_once, bundles, busy_processors, exec_by_crun, life_sides, run_sides,
                             running_containers, runs_by_crun)
from scenes.containers import ROUNDS, WORK, Daemon, by_commands, cgroup2_only
from scenes.measure import compare, figure, interleave, quartiles, rounds


def at_least(samples, what, parts, other):
    """The sum of `parts`, a list of (number, side), in relation to another side."""
    ratios = [sum(number * samples[side][turn].wall for number, side in parts) / against.wall
              for turn, against in enumerate(samples[other])]
    low, median, high = quartiles(ratios)
    return {**figure(what, median, None), "low": low, "high": high}


def floors(world, root):
    """A start of zncctl, a life by one process, and a request."""
    return {
        "start": lambda: by_commands(world, [f"{world.bin}/zncctl", "--version"]),
        "life": lambda: rounds(f"{world.bin}/floor_lifecycle", str(ROUNDS), root, "/bin/true"),
        "request": lambda: rounds(f"{world.bin}/floor_queue", "1", "2000"),
    }


def entered(world):
    """Starts a program in the namespaces of one of the running containers."""
    listed = subprocess.run(["pgrep", "-f", "^/bin/sleep 1000000$"], check=True, stdout=subprocess.PIPE, text=True)
    return rounds(f"{world.bin}/floor_enter", str(ROUNDS), listed.stdout.split()[-1], "/bin/true")


def of_lives(world):
    ours, peer = bundles()
    life = [f"{world.bin}/floor_lifecycle", str(ROUNDS), f"{ours}/rootfs", "/bin/true"]
    peers = {name: side for name, side in {**life_sides(world, ours, peer), **run_sides(world, ours, peer)}.items()
             if not name.startswith("ours")}
    samples = interleave({
        **floors(world, f"{ours}/rootfs"),
        "life over an overlay": lambda: rounds(*life, WORK),
        "8 lives at once": lambda: at_once([life] * CLIENTS),
        **peers,
        "crun run, 8 clients": runs_by_crun(world, peer),
    }, world.pairs)
    with busy_processors():
        busy = interleave({**floors(world, f"{ours}/rootfs"), **peers}, world.pairs)
    life_of_daemon = [(1, "life"), (4, "request")]
    life_over_overlay = [(1, "life over an overlay"), (4, "request")]
    result = compare(samples, {}, "life")
    result["goals"] = [
        at_least(samples, "L1 / crun, at least", [(3, "start"), *life_of_daemon], "crun"),
        at_least(samples, "L2 / floor, at least", life_of_daemon, "life"),
        at_least(samples, "L3 / floor, at least", life_over_overlay, "life over an overlay"),
        at_least(samples, "L4 / crun run, at least", [(1, "start"), *life_of_daemon], "crun run"),
        at_least(samples, "L4 / bwrap, at least", [(1, "start"), *life_of_daemon], "bwrap"),
        at_least(busy, "L5 / crun, at least", [(3, "start"), *life_of_daemon], "crun"),
        at_least(busy, "L5 / crun run, at least", [(1, "start"), *life_of_daemon], "crun run"),
        at_least(samples, "L7 / crun run, 8 clients, at least", [(1, "8 lives at once")], "crun run, 8 clients"),
        at_least(samples, "L7 / one client, at least", [(1, "8 lives at once")], "life"),
        at_least(samples, "L8 / crun run, at least", [(1, "start"), *life_over_overlay], "crun run"),
        at_least(samples, "L8 / bwrap, at least", [(1, "start"), *life_over_overlay], "bwrap"),
    ]
    return result


def of_exec(world):
    for kind in ("ours", "peer"):
        shutil.rmtree(f"{WORK}/{kind}")
    with running_containers(world):
        samples = interleave({
            **{name: side for name, side in floors(world, f"{WORK}/ours/rootfs").items() if name != "life"},
            "entered": lambda: entered(world),
            "crun exec": lambda: exec_by_crun(world),
        }, world.pairs)
    result = compare(samples, {}, "entered")
    result["goals"] = [at_least(samples, "L6 / crun, at least", [(1, "start"), (1, "entered"), (3, "request")],
                                "crun exec")]
    return result


def l0(world):
    """what L1 to L8 cannot do without: starts of zncctl, lives, requests"""
    cgroup2_only()
    with Daemon(world, overlay=False):
        lives = of_lives(world)
        entries = of_exec(world)
    return {"sides": {**lives["sides"], **{name: entries["sides"][name] for name in ("entered", "crun exec")}},
            "goals": lives["goals"] + entries["goals"]}
