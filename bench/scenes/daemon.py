"""The scenes of a daemon with much to clean up: files of a container, programs that are not reaped."""
import os
import shutil
import signal
import statistics
import subprocess

from scenes import fixtures
from scenes.containers import WORK, Daemon, running
from scenes.measure import figure, quartiles

FILES = 400_000
PROGRAMS = 50
DIRECTORIES = 400


def spread(what, values, limit, unit):
    low, median, high = quartiles(values)
    return {**figure(what, median, limit, unit), "low": low, "high": high}


def fill(root, files):
    for directory in range(DIRECTORIES):
        path = f"{root}/data/{directory}"
        os.makedirs(path)
        for number in range(files // DIRECTORIES):
            os.close(os.open(f"{path}/{number}", os.O_CREAT | os.O_WRONLY, 0o644))


def d1(world):
    """answers while 400,000 files of a container are deleted"""
    base = f"{world.disk}/base"
    shutil.rmtree(base, ignore_errors=True)
    os.makedirs(base, mode=0o700)
    worst, median = [], []
    with Daemon(world, True, base):
        fixtures.bundle(f"{WORK}/ours")
        library = f"{world.bin}/bench_library"
        for _ in range(max(1, world.pairs // 5)):
            subprocess.run([library, "fill", "1", f"{WORK}/ours"], check=True)
            fill("/overlay/filled-0", FILES)
            out = subprocess.run([library, "answers", f"{base}/.trash"], check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
            waits = [int(line) / 1e6 for line in out.split()]
            worst.append(max(waits))
            median.append(statistics.median(waits))
    shutil.rmtree(base)
    return {"sides": {}, "goals": [spread("worst answer", worst, 50, "ms"),
                                   spread("median answer", median, None, "ms")]}


def r1(world):
    """restart and stop with 50 programs that are not reaped"""
    restarts, stops = [], []
    for _ in range(max(1, world.pairs // 3)):
        for number, times in ((signal.SIGKILL, restarts), (signal.SIGTERM, stops)):
            with Daemon(world, overlay=True) as daemon:
                with running(world, PROGRAMS):
                    stopped = daemon.stop(number)
                    started = daemon.start()
                    times.append(started if number == signal.SIGKILL else stopped)
    return {"sides": {}, "goals": [spread("restart until it answers", restarts, 2, "s"),
                                   spread("stop", stops, 3, "s")]}
