"""The scenes of container engines: zncrun and other OCI runtimes with the same bundle."""
import os
import shutil
import statistics
import subprocess
import time

from scenes import fixtures
from scenes.containers import WORK, by_commands, cgroup2_only
from scenes.measure import Sample, compare, figure, interleave, run


def cgroup1_only():
    """Leaves only cgroup v1 in this mount namespace, for runtimes that refuse mixed versions."""
    subprocess.run(["umount", "-l", "/sys/fs/cgroup/unified"], check=False, stderr=subprocess.DEVNULL)


def prepare(world, program=("/bin/true",), cgroups=cgroup1_only):
    """Makes a bundle; returns the commands of the runtimes without their subcommand."""
    cgroups()
    # Processes with a real-time priority may not enter new groups of the controller "cpu".
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    shutil.rmtree(WORK, ignore_errors=True)
    os.makedirs(WORK)
    fixtures.bundle(f"{WORK}/bundle", program=program, peer=True)
    return {
        "ours": [f"{world.bin}/zncrun", f"--root={WORK}/ours"],
        "crun": ["crun", f"--root={WORK}/crun"],
        "runc": ["runc", f"--root={WORK}/runc"],
    }


def sides(world, runtimes, commands):
    def side(runtime):
        return lambda: by_commands(world, *([runtime + c if c != ["wait"] else c for c in commands]))

    return {name: side(runtime) for name, runtime in runtimes.items()}


def e1(world):
    """OCI runtime: create, start, delete"""
    commands = [["create", "--bundle", f"{WORK}/bundle", "@"], ["start", "@"], ["wait"], ["delete", "@"]]
    samples = interleave(sides(world, prepare(world), commands), world.pairs)
    return compare(samples, {"crun": 0.80, "runc": 0.35})


def e2(world):
    """OCI runtime: run"""
    samples = interleave(sides(world, prepare(world), [["run", "--bundle", f"{WORK}/bundle", "@"]]), world.pairs)
    return compare(samples, {"crun": 0.80, "runc": None})


def of_running(runtimes, pairs, measure):
    """Compares exec in a running container of each runtime."""
    for name, runtime in runtimes.items():  # other ids: control groups are named after them
        subprocess.run(runtime + ["run", "--detach", "--bundle", f"{WORK}/bundle", f"bench-{name}"], check=True,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def side(name):
        return lambda: measure(runtimes[name] + ["exec", f"bench-{name}", "/bin/true"])

    try:
        samples = interleave({name: side(name) for name in runtimes}, pairs)
    finally:
        for name, runtime in runtimes.items():
            subprocess.run(runtime + ["delete", "--force", f"bench-{name}"], check=False)
    return compare(samples, {"crun": 0.70, "runc": None})


def e3(world):
    """OCI runtime: exec"""
    runtimes = prepare(world, program=("/bin/sleep", "1000000"))
    return of_running(runtimes, world.pairs, lambda command: by_commands(world, command))


def e4(world):
    """OCI runtime: memory of a created container's first process"""
    runtime, pid_file = prepare(world)["ours"], f"{WORK}/pid"
    subprocess.run(runtime + ["create", "--bundle", f"{WORK}/bundle", "--pid-file", pid_file, "bench"], check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    try:
        with open(pid_file, encoding="ascii") as file:
            pid = file.read()
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            peak = next(int(line.split()[1]) for line in status if line.startswith("VmHWM:"))
    finally:
        subprocess.run(runtime + ["delete", "--force", "bench"], check=True)
    return {"sides": {}, "goals": [figure("peak memory of zn-init", peak, 200, "KiB")]}


def rested(argv):
    """The median of five runs of a command, each after a pause: the kernel's expensive preparations for moving
    processes between control groups are still in effect a few milliseconds after one was moved."""
    walls = []
    for _ in range(5):
        time.sleep(0.1)
        walls.append(run(*argv).wall)
    return Sample(statistics.median(walls))


def e5(world):
    """OCI runtime: run after a pause, cgroup v2"""
    runtimes = prepare(world, cgroups=cgroup2_only)
    samples = interleave({name: lambda runtime=runtime: rested(runtime + ["run", "--bundle", f"{WORK}/bundle", "bench"])
                          for name, runtime in runtimes.items()}, world.pairs)
    return compare(samples, {"crun": 1.0, "runc": None})


def e6(world):
    """OCI runtime: exec after a pause, cgroup v2"""
    runtimes = prepare(world, program=("/bin/sleep", "1000000"), cgroups=cgroup2_only)
    return of_running(runtimes, world.pairs, rested)
