"""Runs the sides of a scene alternately and compares them pair by pair."""
import os
import statistics
import subprocess
import time
from dataclasses import dataclass

ERRORS = "/tmp/bench-errors"  # stderr of the last command
STREAMS = [
    (os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
    (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0),
    (os.POSIX_SPAWN_OPEN, 2, ERRORS, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600),
]


@dataclass
class Sample:
    """Seconds, and seconds of processor time (0: unknown)."""

    wall: float
    cpu: float = 0.0


def run(*argv):
    """Measures one command from its start to its end. A failing command ends the scene."""
    start = time.monotonic()
    pid = os.posix_spawnp(argv[0], list(argv), os.environ, file_actions=STREAMS)
    _, status, usage = os.wait4(pid, 0)
    wall = time.monotonic() - start
    if status != 0:
        with open(ERRORS, encoding="utf-8", errors="replace") as file:
            said = file.read().strip()
        code = os.waitstatus_to_exitcode(status)
        raise RuntimeError(f"{' '.join(argv)}: status {code}: {said}")
    return Sample(wall, usage.ru_utime + usage.ru_stime)


def rounds(*argv):
    """Runs a command that prints the nanoseconds of each of its rounds; returns the median."""
    out = subprocess.run(argv, check=True, stdout=subprocess.PIPE, text=True).stdout
    return Sample(statistics.median(int(line) for line in out.split()) / 1e9)


def interleave(sides, pairs):
    """Runs every side once as a warm-up, then `pairs` times in turns, each starting with another side.

    `sides` maps names to functions that return a Sample; returns lists of Samples under the names.
    """
    names = list(sides)
    for name in names:
        sides[name]()
    samples = {name: [] for name in names}
    for turn in range(pairs):
        first = turn % len(names)
        for name in names[first:] + names[:first]:
            samples[name].append(sides[name]())
    return samples


def quartiles(values):
    if len(values) < 2:
        return [values[0]] * 3
    return statistics.quantiles(values, n=4, method="inclusive")


def ratio(mine, other):
    """The quartiles of the ratio within each pair."""
    low, median, high = quartiles([a.wall / b.wall for a, b in zip(mine, other)])
    return {"low": low, "median": median, "high": high}


def compare(samples, limits, what="ours"):
    """The report of a scene: medians of all sides, and the ratio of `what` to each of `limits`."""
    goals = []
    for other, limit in limits.items():
        if other in samples:
            goals.append({"against": other, "limit": limit, **ratio(samples[what], samples[other])})
    return {
        "sides": {
            name: {
                "wall": quartiles([s.wall for s in list_])[1],
                "spread": quartiles([s.wall for s in list_]),
                "cpu": statistics.median(s.cpu for s in list_),
            }
            for name, list_ in samples.items()
        },
        "goals": goals,
    }


def figure(what, value, limit, unit=""):
    """A goal that is not a ratio of two sides."""
    return {"against": what, "limit": limit, "low": value, "median": value, "high": value, "unit": unit}
