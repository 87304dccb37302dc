"""The scenes of containers: life cycle by commands and by the library, requests, memory."""
import contextlib
import glob
import os
import shutil
import signal
import socket
import statistics
import subprocess
import time

from scenes import fixtures
from scenes.measure import Sample, compare, figure, interleave, rounds

WORK = "/tmp/bench"
ROUNDS = 20  # life cycles per sample


class Daemon:
    """A zncd with a storage base of its own, stopped at the end of the with block."""

    def __init__(self, world, overlay, base=f"{WORK}/base"):
        self.bin = world.bin
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        os.environ["ZNC_BASE"] = base
        if not overlay:  # a dangling link: the daemon finds no /overlay and cannot create it
            os.rmdir("/overlay")
            os.symlink("/none", "/overlay")

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop(signal.SIGTERM)

    def start(self):
        """Starts it; returns the seconds until it reports that it serves."""
        name = f"{WORK}/notify"
        if os.path.exists(name):
            os.unlink(name)
        self.told = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)  # kept until the daemon has ended
        self.told.bind(name)
        self.told.settimeout(60)
        begin = time.monotonic()
        self.process = subprocess.Popen([f"{self.bin}/zncd"],
                                        env={**os.environ, "NOTIFY_SOCKET": name})
        if self.told.recv(64) != b"READY=1":
            raise RuntimeError("zncd does not begin to serve")
        seconds = time.monotonic() - begin
        subprocess.run([f"{self.bin}/zncctl", "ping"], stdout=subprocess.DEVNULL, check=True)
        return seconds

    def stop(self, number):
        """Stops it; returns the seconds until it has ended."""
        begin = time.monotonic()
        self.process.send_signal(number)
        self.process.wait(timeout=60)
        return time.monotonic() - begin

    def through_library(self, *argv):
        return rounds(f"{self.bin}/bench_library", *argv)


@contextlib.contextmanager
def running(world, count):
    """Containers whose programs sleep."""
    fixtures.bundle(f"{WORK}/sleeper", program=("/bin/sleep", "1000"))
    client = subprocess.Popen([f"{world.bin}/bench_library", "hold", str(count), f"{WORK}/sleeper"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    if client.stdout.readline() != "held\n":
        raise RuntimeError("the programs could not be started")
    try:
        yield
    finally:
        client.stdin.close()
        client.wait(timeout=60)


def cgroup2_only():
    """Mounts cgroup2 only, in this mount namespace, for runtimes that refuse mixed cgroup versions."""
    subprocess.run(["umount", "-l", "/sys/fs/cgroup"], check=False, stderr=subprocess.DEVNULL)
    subprocess.run(["mount", "-t", "cgroup2", "cgroup2", "/sys/fs/cgroup"], check=True)


def by_commands(world, *commands):
    argv = [f"{world.bin}/bench_commands", str(ROUNDS)]
    for number, command in enumerate(commands):
        argv += (["--"] if number > 0 else []) + command
    return rounds(*argv)


def l1(world):
    """create, start, delete by commands"""
    cgroup2_only()
    with Daemon(world, overlay=False):
        ours, peer = f"{WORK}/ours", f"{WORK}/peer"
        fixtures.bundle(ours)
        fixtures.bundle(peer, peer=True)
        ctl = f"{world.bin}/zncctl"
        crun = ["crun", "--cgroup-manager=disabled", f"--root={WORK}/crun"]
        runc = ["runc", f"--root={WORK}/runc"]

        def oci(runtime):
            return by_commands(world, runtime + ["create", "--bundle", peer, "@"],
                               runtime + ["start", "@"], ["wait"], runtime + ["delete", "@"])

        samples = interleave({
            "ours": lambda: by_commands(world, [ctl, "create", "@", ours], [ctl, "start", "-a", "@"],
                                        [ctl, "delete", "@"]),
            "crun": lambda: oci(crun),
            "crun run": lambda: by_commands(world, crun + ["run", "--bundle", peer, "@"]),
            "runc": lambda: oci(runc),
            "bwrap": lambda: by_commands(
                world, ["bwrap", "--bind", f"{peer}/rootfs", "/", "--unshare-pid", "--unshare-ipc",
                        "--unshare-uts", "--unshare-net", "--unshare-cgroup-try", "--proc", "/proc",
                        "--dev", "/dev", "/bin/true"]),
        }, world.pairs)
    return compare(samples, {"crun": 0.50, "runc": 0.18, "crun run": None, "bwrap": None})


def in_one_process(world, overlay, limit):
    cgroup2_only()
    with Daemon(world, overlay) as daemon:
        fixtures.bundle(f"{WORK}/ours")
        root = f"{WORK}/ours/rootfs"
        floor = [f"{world.bin}/floor_lifecycle", str(ROUNDS), root, "/bin/true"]
        samples = interleave({
            "ours": lambda: daemon.through_library("lifecycle", str(ROUNDS), f"{WORK}/ours"),
            "floor": lambda: rounds(*floor, *([WORK] if overlay else [])),
        }, world.pairs)
    return compare(samples, {"floor": limit})


def l2(world):
    """the same by the library"""
    return in_one_process(world, overlay=False, limit=1.4)


def l3(world):
    """the same over an overlay root"""
    return in_one_process(world, overlay=True, limit=1.4)


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def q1(world):
    """state requests of 1 and 8 clients"""
    with Daemon(world, overlay=True) as daemon:
        fixtures.bundle(f"{WORK}/ours")
        daemon_pid = daemon.process.pid
        subprocess.run([f"{world.bin}/zncctl", "create", "asked", f"{WORK}/ours"], check=True)
        busy = []

        def eight():
            spent, start = processor_seconds(daemon_pid), time.monotonic()
            sample = daemon.through_library("state", "8", "1000", "asked")
            busy.append((processor_seconds(daemon_pid) - spent) / (time.monotonic() - start))
            return sample

        def floor(clients, count):
            return rounds(f"{world.bin}/floor_queue", clients, count)

        samples = interleave({
            "ours": lambda: daemon.through_library("state", "1", "2000", "asked"),
            "floor": lambda: floor("1", "2000"),
            "ours, 8 clients": eight,
            "floor, 8 clients": lambda: floor("8", "1000"),
        }, world.pairs)
    result = compare(samples, {"floor": 2.0})
    result["goals"] += compare(samples, {"floor, 8 clients": 2.0}, "ours, 8 clients")["goals"]
    result["goals"].append(figure("daemon's share of a core, 8 clients", statistics.median(busy), None))
    return result


def operation_times(world, bundle):
    """Returns the median seconds of state, create, kill and delete."""
    out = subprocess.run([f"{world.bin}/bench_library", "operations", "10", bundle], check=True,
                         stdout=subprocess.PIPE, text=True).stdout
    columns = zip(*(map(int, line.split()) for line in out.splitlines()))
    return [statistics.median(column) / 1e9 for column in columns]


def s1(world):
    """1 and 500 containers"""
    names = ("state", "create", "kill", "delete")
    limits = {"state": 1.15, "create": 1.3, "kill": 1.3, "delete": 1.3}
    few, many = {n: [] for n in names}, {n: [] for n in names}
    with Daemon(world, overlay=True):
        bundle = f"{WORK}/sleeper"
        fixtures.bundle(bundle, program=("/bin/sleep", "1000"))
        library = f"{world.bin}/bench_library"
        operation_times(world, bundle)
        for _ in range(max(3, world.pairs // 3)):
            for name, seconds in zip(names, operation_times(world, bundle)):
                few[name].append(Sample(seconds))
            subprocess.run([library, "fill", "500", bundle], check=True)
            for name, seconds in zip(names, operation_times(world, bundle)):
                many[name].append(Sample(seconds))
            subprocess.run([library, "empty", "500"], check=True)
    result = {"sides": {}, "goals": []}
    for name in names:
        part = compare({"500": many[name], "1": few[name]}, {"1": limits[name]}, "500")
        for side, values in part["sides"].items():
            result["sides"][f"{name}, {side} containers"] = values
        result["goals"].append({**part["goals"][0], "against": f"{name}, 500 / 1"})
    return result


def pss(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        for line in file:
            if line.startswith("Pss:"):
                return int(line.split()[1])
    raise RuntimeError(f"no Pss of {pid}")


def children(daemon_pid, *names):
    """The daemon's children whose names are among these."""
    found = []
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            with open(path, encoding="ascii") as file:
                text = file.read()
        except OSError:
            continue
        name, fields = text.split("(", 1)[1].rsplit(")", 1)
        if fields.split()[1] == str(daemon_pid) and name in names:
            found.append(int(path.split("/")[2]))
    return found


def m1(world):
    """memory of the daemon and of containers"""
    count = 100
    with Daemon(world, overlay=True) as daemon:
        pid = daemon.process.pid
        fixtures.bundle(f"{WORK}/ours")
        idle = pss(pid) + sum(pss(spare) for spare in children(pid, "zn-starter", "zn-spare"))
        library = f"{world.bin}/bench_library"
        subprocess.run([library, "fill", "1", f"{WORK}/ours"], check=True)
        first = pss(pid) + sum(pss(keeper) for keeper in children(pid, "zn-keeper"))
        subprocess.run([library, "empty", "1"], check=True)
        subprocess.run([library, "fill", str(count), f"{WORK}/ours"], check=True)
        all_keepers = children(pid, "zn-keeper")
        if len(all_keepers) != count:
            raise RuntimeError(f"{len(all_keepers)} keepers of {count} containers")
        full = pss(pid) + sum(pss(keeper) for keeper in all_keepers)
        subprocess.run([library, "empty", str(count)], check=True)
    each = (full - first) / (count - 1)
    return {"sides": {}, "goals": [figure("each container", each, 24, "KiB"),
                                   figure("idle daemon", idle, 1331, "KiB")]}
