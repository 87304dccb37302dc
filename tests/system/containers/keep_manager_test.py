#!/usr/bin/env python3
"""keep_manager_test.py ZNCCTL ZNCD - zncd --keep under a service manager that holds descriptors.

This program plays the manager: it receives the daemon's notifications, holds the descriptors that
come with FDSTORE=1 under their names, drops those whose other end is closed, as systemd does, and
hands them to the next daemon (LISTEN_FDS). What it hands over may be wrong.

Needs a sandbox and busybox. The last line is "N passed, N failed".
"""

import json
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

FIRST = 3  # number of the first descriptor that is handed over
SO_COOKIE = 57
LIMIT = 20  # seconds for anything to happen
KEPT = "/run/zarnel/kept"

zncctl, zncd = (os.path.abspath(path) for path in sys.argv[1:3])
work = tempfile.mkdtemp(prefix="keep-manager.")
os.environ["ZNC_BASE"] = work + "/storage"
passed = failed = 0


def report(good, name):
    global passed, failed
    passed, failed = passed + bool(good), failed + (not good)
    print(("ok - " if good else "not ok - ") + name, flush=True)


def eventually(condition):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


class Manager:
    def __init__(self):
        self.address = work + "/notify"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.address)
        self.held = {}  # name -> descriptor
        self.removed = []  # names that the daemon has asked to drop
        self.states = []
        self.daemon = None

    def read(self):
        """Serves the notifications that have arrived, and drops what has no other end."""
        while select.select([self.socket], [], [], 0)[0]:
            text, descriptors, _, _ = socket.recv_fds(self.socket, 4096, 4)
            lines = dict(line.split("=", 1) for line in text.decode().split("\n"))
            self.states.append(lines)
            if "FDSTORE" in lines:
                self.held[lines["FDNAME"]] = descriptors.pop()
            if "FDSTOREREMOVE" in lines:
                self.removed.append(lines["FDNAME"])
                self.drop(lines["FDNAME"])
            for descriptor in descriptors:
                os.close(descriptor)
        poll = select.poll()
        names = {descriptor: name for name, descriptor in self.held.items()}
        for descriptor in names:
            poll.register(descriptor, 0)  # POLLHUP and POLLERR are always reported
        for descriptor, events in poll.poll(0):
            if events & (select.POLLHUP | select.POLLERR):
                self.drop(names[descriptor])

    def drop(self, name):
        if name in self.held:
            os.close(self.held.pop(name))

    def drop_all(self):
        for name in list(self.held):
            self.drop(name)

    def start(self, *options, handed=None, announced_to=None):
        """Starts the daemon; `handed` is a list of names and descriptors, by default those held."""
        handed = list(self.held.items()) if handed is None else handed
        self.states.clear()
        self.daemon = os.fork()
        if self.daemon == 0:
            self.become_daemon(options, handed, announced_to)
        if not eventually(lambda: self.read() or any("READY" in lines for lines in self.states)):
            raise RuntimeError("the daemon is not ready")

    def become_daemon(self, options, handed, announced_to):
        high = [os.dup2(descriptor, 200 + number) for number, (_, descriptor) in enumerate(handed)]
        for number, descriptor in enumerate(high):
            os.dup2(descriptor, FIRST + number)
        os.closerange(FIRST + len(handed), 300)
        environment = {**os.environ, "NOTIFY_SOCKET": self.address}
        if handed:
            environment["LISTEN_PID"] = str(announced_to or os.getpid())
            environment["LISTEN_FDS"] = str(len(handed))
            environment["LISTEN_FDNAMES"] = ":".join(name for name, _ in handed)
        os.execve(zncd, [zncd, *options], environment)

    def stop(self, number):
        os.kill(self.daemon, number)
        _, status = os.waitpid(self.daemon, 0)
        self.read()
        self.daemon = None
        return os.waitstatus_to_exitcode(status)

    def end(self):
        if self.daemon is not None:
            self.stop(signal.SIGINT)
        self.drop_all()

    def restart(self, number, *options, **arguments):
        self.stop(number)
        self.start(*options, **arguments)


def make_bundle():
    root = work + "/bundle/rootfs"
    for name in ("bin", "proc", "dev", "sys"):
        os.makedirs(f"{root}/{name}")
    shutil.copy(shutil.which("busybox"), root + "/bin/busybox")
    os.symlink("busybox", root + "/bin/sh")
    config = {
        "ociVersion": "1.0.0",
        "process": {"args": ["/bin/sh", "-c", "read code </shared/code; exit $code"], "cwd": "/"},
        "root": {"path": "rootfs"},
        "mounts": [{"destination": "/shared", "type": "bind", "source": work + "/shared"}],
    }
    os.mkdir(work + "/shared")
    os.mkfifo(work + "/shared/code")
    with open(work + "/bundle/config.json", "w", encoding="utf-8") as file:
        json.dump(config, file)


class Program:
    """A program in a new container that exits with the code it reads; zncctl exits with it, too."""

    def __init__(self, name):
        subprocess.run([zncctl, "create", name, work + "/bundle"], check=True)
        self.name = name
        self.process = subprocess.Popen([zncctl, "start", "--attach", name], stdin=subprocess.DEVNULL)
        if not eventually(lambda: state(name) == 2):
            raise RuntimeError(name + " does not run")

    def end(self, code):
        with open(work + "/shared/code", "w", encoding="ascii") as fifo:
            print(code, file=fifo)
        return self.process.wait(LIMIT)

    def was_ended(self):
        return self.process.wait(LIMIT) != 0


def name_of(one):
    """The name under which the daemon would have stored a socket."""
    cookie = one.getsockopt(socket.SOL_SOCKET, SO_COOKIE, 8)
    return f"zn-{int.from_bytes(cookie, sys.byteorder):016x}"


def state(name):
    """The number of a container's state; 0 if there is no such container."""
    found = subprocess.run([zncctl, "state", name], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    return json.loads(found.stdout)["status"] if found.returncode == 0 else 0


def delete(name):
    return subprocess.run([zncctl, "delete", name], stdout=subprocess.DEVNULL, check=False).returncode == 0


def main():
    make_bundle()
    manager.start("--keep")
    web = Program("web")
    manager.read()
    report(len(manager.held) == 1, "the manager holds one descriptor of a container")
    report(all(name.startswith("zn-") for name in manager.held), "its name is the daemon's")
    report(not os.path.exists(KEPT + "/store"), "no process of the daemon holds it, too")
    for number in (signal.SIGKILL, signal.SIGTERM):
        manager.restart(number, "--keep")
        report(state("web") == 2, f"a container survives a daemon that ended by signal {number}")
        report(len(manager.held) == 1, f"its descriptor stays in the store after signal {number}")
    report(web.end(7) == 7, "the program's exit code is its own")
    report(state("web") == 3 and delete("web"), "it is stopped and can be deleted")
    report(eventually(lambda: manager.read() or not manager.held), "then the store is empty")

    web = Program("web")
    manager.read()
    name, descriptor = next(iter(manager.held.items()))
    pipe, other = os.pipe()
    left, right = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    wrong = [("other", pipe), ("zn-0", other), (name, left.fileno()), ("zn-", right.fileno())]
    manager.restart(signal.SIGKILL, "--keep", handed=[*wrong, (name, descriptor)])
    report(state("web") == 2, "the right descriptor is found among wrong ones of the same name")
    manager.read()
    dropped = {name_of(one) for one in (left, right)}
    report(dropped <= set(manager.removed) and name not in manager.removed, "the wrong ones are dropped")
    report(web.end(3) == 3 and delete("web"), "the container is usable")
    manager.drop_all()

    web = Program("web")
    manager.read()
    manager.stop(signal.SIGTERM)
    manager.drop_all()  # as at the stop of a unit
    report(web.was_ended(), "without the manager's descriptors the container ends")
    manager.start("--keep")
    report(state("web") == 3 and delete("web"), "the next daemon reports that, and deletes it")

    web = Program("web")
    manager.restart(signal.SIGKILL, "--keep", announced_to=1)
    manager.drop_all()
    report(web.was_ended() and state("web") == 0, "descriptors for another process are not taken")

    web = Program("web")
    manager.read()
    names = list(manager.held)
    manager.removed.clear()
    manager.restart(signal.SIGTERM)
    report(web.was_ended() and state("web") == 0, "a daemon without --keep ends the container")
    report(manager.read() or manager.removed == names, "it asks the manager to drop the descriptor")
    report(not os.path.exists(KEPT), "it removes the records")
    manager.stop(signal.SIGTERM)

    address, manager.address = manager.address, ""
    environment = {key: value for key, value in os.environ.items() if key != "NOTIFY_SOCKET"}
    alone = subprocess.Popen([zncd, "--keep"], env=environment)
    ping = [zncctl, "ping"]
    eventually(lambda: subprocess.run(ping, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0)
    web = Program("web")
    alone.kill()
    alone.wait()
    report(os.path.exists(KEPT + "/store"), "without a manager a process holds the descriptors")
    manager.address = address
    manager.start("--keep")
    manager.read()
    report(state("web") == 2 and len(manager.held) == 1, "a manager takes over what the process held")
    report(not os.path.exists(KEPT + "/store"), "the process is ended")
    manager.restart(signal.SIGKILL, "--keep")
    report(web.end(9) == 9 and delete("web"), "the container survives a further daemon")
    manager.stop(signal.SIGINT)
    report(not os.path.exists(KEPT), "nothing is left after an interrupt")
    print(f"{passed} passed, {failed} failed")
    sys.exit(1 if failed else 0)


manager = Manager()
try:
    main()
finally:
    manager.end()
    shutil.rmtree(work, ignore_errors=True)
