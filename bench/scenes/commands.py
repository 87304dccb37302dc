"""The scenes of zncctl's commands, alone and beside busy processors, and of many clients at once."""
import contextlib
import os
import statistics
import subprocess
import sys
import time

from scenes import fixtures
from scenes.containers import ROUNDS, WORK, Daemon, by_commands, cgroup2_only, running
from scenes.measure import Sample, compare, figure, interleave, run

CRUN = ["crun", "--cgroup-manager=disabled", f"--root={WORK}/crun"]
CLIENTS = 8
MANY = 200
LISTED = (500, 5000)  # the larger list does not fit into one reply of the daemon


def bundles():
    """Returns the bundles of zncctl and of the other runtimes."""
    ours, peer = f"{WORK}/ours", f"{WORK}/peer"
    fixtures.bundle(ours)
    fixtures.bundle(peer, peer=True)
    return ours, peer


def bwrap(root):
    return ["bwrap", "--bind", root, "/", "--unshare-pid", "--unshare-ipc", "--unshare-uts", "--unshare-net",
            "--unshare-cgroup-try", "--proc", "/proc", "--dev", "/dev", "/bin/true"]


def life_sides(world, ours, peer):
    ctl = f"{world.bin}/zncctl"
    return {
        "ours": lambda: by_commands(world, [ctl, "create", "@", ours], [ctl, "start", "-a", "@"],
                                    [ctl, "delete", "@"]),
        "crun": lambda: by_commands(world, CRUN + ["create", "--bundle", peer, "@"], CRUN + ["start", "@"],
                                    ["wait"], CRUN + ["delete", "@"]),
    }


def run_sides(world, ours, peer, *options):
    ctl = f"{world.bin}/zncctl"
    return {
        "ours, run": lambda: by_commands(world, [ctl, "run", "--rm", *options, "--name", "@", "-b", ours]),
        "crun run": lambda: by_commands(world, CRUN + ["run", "--bundle", peer, "@"]),
        "bwrap": lambda: by_commands(world, bwrap(f"{peer}/rootfs")),
    }


def of_bundle(world, overlay, *options):
    cgroup2_only()
    with Daemon(world, overlay):
        samples = interleave(run_sides(world, *bundles(), *options), world.pairs)
    return compare(samples, {"crun run": 0.60, "bwrap": 1.0}, "ours, run")


def l4(world):
    """zncctl run of a bundle"""
    return of_bundle(world, False)


def l8(world):
    """the same with options, over an overlay root"""
    return of_bundle(world, True, "--network", "none")


@contextlib.contextmanager
def busy_processors():
    """Keeps each processor busy with a process of the same priority."""
    loops = [subprocess.Popen([sys.executable, "-c", "while True: pass"]) for _ in os.sched_getaffinity(0)]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


def l5(world):
    """L1 and L4 while both processors are busy"""
    cgroup2_only()
    with Daemon(world, overlay=False):
        ours, peer = bundles()
        with busy_processors():
            samples = interleave({**life_sides(world, ours, peer), **run_sides(world, ours, peer)}, world.pairs)
    result = compare(samples, {"crun": 0.80})
    result["goals"] += compare(samples, {"crun run": 0.80}, "ours, run")["goals"]
    return result


@contextlib.contextmanager
def running_containers(world):
    """A container of zncctl and one of crun, both named "running", whose program sleeps."""
    for kind in ("ours", "peer"):
        fixtures.bundle(f"{WORK}/{kind}", program=("/bin/sleep", "1000000"), peer=kind == "peer")
    ctl = f"{world.bin}/zncctl"
    begin = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "check": True}
    subprocess.run([ctl, "run", "-d", "--name", "running", "-b", f"{WORK}/ours"], **begin)
    subprocess.run(CRUN + ["run", "--detach", "--bundle", f"{WORK}/peer", "running"], **begin)
    try:
        yield
    finally:
        subprocess.run(CRUN + ["delete", "--force", "running"], check=False)
        subprocess.run([ctl, "delete", "-f", "running"], check=False)


def exec_by_crun(world):
    return by_commands(world, CRUN + ["exec", "running", "/bin/true"])


def l6(world):
    """zncctl exec"""
    cgroup2_only()
    with Daemon(world, overlay=False), running_containers(world):
        samples = interleave({
            "ours": lambda: by_commands(world, [f"{world.bin}/zncctl", "exec", "running", "/bin/true"]),
            "crun": lambda: exec_by_crun(world),
        }, world.pairs)
    return compare(samples, {"crun": 0.50})


def at_once(commands):
    """Seconds for each life, of commands with ROUNDS lives each that run at once."""
    start = time.monotonic()
    clients = [subprocess.Popen(command, stdout=subprocess.DEVNULL) for command in commands]
    if any([client.wait() for client in clients]):
        raise RuntimeError(f"{commands[0][0]} failed")
    return Sample((time.monotonic() - start) / (len(commands) * ROUNDS))


def runs_by_crun(world, peer):
    runs = [f"{world.bin}/bench_commands", str(ROUNDS)] + CRUN + ["run", "--bundle", peer, "@"]
    return lambda: at_once([runs] * CLIENTS)


def l7(world):
    """lives of 8 clients at once, time for each"""
    cgroup2_only()
    with Daemon(world, overlay=False):
        _, peer = bundles()
        lives = []
        for number in range(CLIENTS):  # without an overlay each bundle can be used by one container only
            fixtures.bundle(f"{WORK}/ours-{number}")
            lives.append([f"{world.bin}/bench_library", "lifecycle", str(ROUNDS), f"{WORK}/ours-{number}"])
        samples = interleave({
            "ours, 8 clients": lambda: at_once(lives),
            "ours, 1 client": lambda: at_once(lives[:1]),
            "crun run, 8 clients": runs_by_crun(world, peer),
        }, world.pairs)
    return compare(samples, {"crun run, 8 clients": 0.33, "ours, 1 client": 0.67}, "ours, 8 clients")


def l9(world):
    """create a further container of an image"""
    ctl = f"{world.bin}/zncctl"

    def creates(*command):
        sample = by_commands(world, [ctl, "create", *command])
        subprocess.run([ctl, "rm", "-af"], check=True, stdout=subprocess.DEVNULL)
        return sample

    with Daemon(world, overlay=True):
        ours, _ = bundles()
        layout = fixtures.Layout(f"{WORK}/layout")
        layout.image("latest", [layout.layer(fixtures.archive(f"{ours}/rootfs"))])
        layout.finish()
        of_image = ["--os", "linux", "--network", "none", "--progress", "none", "--name", "@", layout.path]
        samples = interleave({"ours": lambda: creates(*of_image), "of a bundle": lambda: creates("@", ours)},
                             world.pairs)
    return compare(samples, {"of a bundle": 1.2})


def milliseconds(world, *command):
    return statistics.median(run(*command).wall for _ in range(max(3, world.pairs))) * 1e3


def p1(world):
    """list 200 containers"""
    ctl = f"{world.bin}/zncctl"
    with Daemon(world, overlay=True):
        ours, _ = bundles()
        for number in range(MANY):
            run(ctl, "create", f"listed-{number}", ours)
        created = milliseconds(world, ctl, "ps", "-a")
    with Daemon(world, overlay=True), running(world, MANY):
        up = milliseconds(world, ctl, "ps")
    return {"sides": {}, "goals": [figure("zncctl ps -a", created, 30, "ms"),
                                   figure("zncctl ps, programs running", up, 30, "ms")]}


def p2(world):
    """list 500 and 5,000 containers"""
    library, ctl = f"{world.bin}/bench_library", f"{world.bin}/zncctl"
    times = {}
    with Daemon(world, overlay=True):
        ours, _ = bundles()
        for count in LISTED:
            subprocess.run([library, "fill", str(count), ours], check=True)
            if count == LISTED[0]:
                out = subprocess.run([library, "list", "100"], check=True, stdout=subprocess.PIPE, text=True).stdout
                reply = statistics.median(int(line) for line in out.split()) / 1e6
            times[count] = milliseconds(world, ctl, "list", "--quiet")
            subprocess.run([library, "empty", str(count)], check=True)
    few, many = LISTED
    return {"sides": {}, "goals": [figure(f"{few}, by the library", reply, 5, "ms"),
                                   figure(f"{few}, zncctl list", times[few], None, "ms"),
                                   figure(f"{many}, zncctl list", times[many], None, "ms")]}
