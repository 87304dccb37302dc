#!/usr/bin/env python3
"""Runs zncctl on a pseudo-terminal and looks at both ends of it. Started by cli_terminal.sh, which
has a daemon, a bundle that runs tmp/script of its root, and an image."""
import fcntl
import glob
import os
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import termios
import time

ZNCCTL = os.environ["ZNCCTL"]
WORK = os.environ["WORK"]
BUNDLE = WORK + "/shell"
TIME = 60
failed = 0


def check(name, good, detail=""):
    global failed
    failed += not good
    print("ok - " + name if good else f"not ok - {name}\n  {detail!r}")


class Terminal:
    """zncctl as the leader of a session on a terminal of its own."""

    def __init__(self, *words, rows=24, columns=80, in_background=False, **environment):
        self.text = b""
        self.status = None
        parent, child = pty.openpty()
        self.master = parent
        self.resize(rows, columns, tell=False)
        self.before = termios.tcgetattr(child)
        self.child = child
        self.pid = os.fork()
        if self.pid == 0:
            os.setsid()
            fcntl.ioctl(child, termios.TIOCSCTTY, 0)
            for fd in range(3):
                os.dup2(child, fd)
            os.closerange(3, 100)
            signal.pthread_sigmask(signal.SIG_SETMASK, [])
            if in_background:
                self.lead()
            os.execve(ZNCCTL, [ZNCCTL, *words], {**os.environ, "TERM": "xterm", **environment})

    @staticmethod
    def lead():
        """Does what a shell does: returns in a job in the background, reads a line itself, then gives
        the terminal to the job and ends as that does."""
        job = os.fork()
        if job == 0:
            os.setpgid(0, 0)
            return
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        os.write(1, b"the shell got " + os.read(0, 100))
        os.tcsetpgrp(0, job)
        os._exit(os.waitstatus_to_exitcode(os.waitpid(job, 0)[1]))

    def resize(self, rows, columns, tell=True):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        if tell:
            os.kill(self.pid, signal.SIGWINCH)

    def type(self, text):
        os.write(self.master, text.encode())

    def read(self):
        if select.select([self.master], [], [], 0.05)[0]:
            self.text += os.read(self.master, 65536)

    def until(self, wanted):
        """Reads until the text has come; whether it has."""
        end = time.monotonic() + TIME
        while not re.search(wanted.encode(), self.text) and time.monotonic() < end:
            self.read()
        return re.search(wanted.encode(), self.text) is not None

    def settings_become(self, settings):
        end = time.monotonic() + TIME
        while termios.tcgetattr(self.child) != settings and time.monotonic() < end:
            self.read()
        return termios.tcgetattr(self.child) == settings

    def settings_change(self):
        end = time.monotonic() + TIME
        while self.restored() and time.monotonic() < end:
            self.read()
        return not self.restored()

    def wait(self, options=0):
        """The wait status; the terminal stays open for a look at it."""
        end = time.monotonic() + TIME
        while time.monotonic() < end:
            pid, status = os.waitpid(self.pid, options | os.WNOHANG)
            if pid != 0:
                for _ in range(3):
                    self.read()
                return status
            self.read()
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        return None

    def restored(self):
        return termios.tcgetattr(self.child) == self.before

    def close(self):
        os.close(self.child)
        os.close(self.master)


def script(text):
    with open(BUNDLE + "/rootfs/tmp/script", "w") as file:
        file.write(text)


def run(*words, **options):
    terminal = Terminal(*words, **options)
    terminal.ended = terminal.wait()
    return terminal


def code(status):
    return os.waitstatus_to_exitcode(status) if status is not None else None


def listed():
    return subprocess.run([ZNCCTL, "list"], capture_output=True, text=True).stdout


def a_terminal_of_its_own():
    script("test -t 0 && test -t 1 && test -t 2 && echo terminal; /bin/busybox stty size; exit 4")
    t = run("run", "--rm", "-it", "-b", BUNDLE, rows=33, columns=111)
    check("--tty: all three streams are a terminal", b"terminal" in t.text, t.text)
    check("of the size of the caller's", b"33 111" in t.text, t.text)
    check("the exit status is passed on", code(t.ended) == 4, t.ended)
    check("the terminal is as it was", t.restored())
    t.close()


# The size arrives when zncctl handles the signal, perhaps after what was typed meanwhile.
WAIT_FOR_SIZE = "while s=$(/bin/busybox stty size); [ \"$s\" != \"40 100\" ]; do sleep 0.05; done; echo $s"


def typing_and_sizes():
    script("echo ready; read a; echo got:$a; read b; " + WAIT_FOR_SIZE)
    t = Terminal("run", "--rm", "-it", "-b", BUNDLE)
    check("it begins", t.until("ready"), t.text)
    check("the caller's terminal is raw meanwhile", not t.restored())
    t.type("word\r")
    check("what is typed arrives, echoed once", t.until("got:word"), t.text)
    check("only once", t.text.count(b"word") == 2, t.text)
    t.resize(40, 100)
    t.type("\r")
    check("a new size arrives", t.until("40 100"), t.text)
    check("it ends", code(t.wait()) == 0)
    check("and the terminal is as it was", t.restored())
    t.close()


def keys_that_are_signals():
    script("trap 'echo interrupted; exit 9' INT; echo ready; while :; do sleep 0.05; done")
    t = Terminal("run", "--rm", "-it", "-b", BUNDLE)
    t.until("ready")
    t.type("\x03")
    check("--tty: the interrupt key interrupts the program", t.until("interrupted"), t.text)
    check("which ends as it likes", code(t.wait()) == 9)
    t.close()
    script("/bin/busybox stty -isig; echo ready; read a; echo got:$a | /bin/busybox cat -v")
    t = Terminal("run", "--rm", "-it", "-b", BUNDLE)
    t.until("ready")
    t.type("\x03\r")
    check("not when the program wants the byte itself", t.until(r"got:\^C"), t.text)
    check("it goes on then", code(t.wait()) == 0)
    t.close()
    script("trap 'echo interrupted; exit 9' INT; echo ready; while :; do sleep 0.05; done")
    t = Terminal("run", "--rm", "-i", "-b", BUNDLE)
    t.until("ready")
    check("without --tty the terminal is left alone", t.restored())
    t.type("\x03")
    check("and the interrupt key reaches the program, too", t.until("interrupted"), t.text)
    check("with its exit status", code(t.wait()) == 9)
    t.close()


def program_runs():
    """Waits for the program itself. A container that is listed before it has a process counts as
    stopped from then on, and gets no signals."""
    wanted = b"sleep\0" + os.environ["MARK"].encode() + b"\0"
    end = time.monotonic() + TIME
    while time.monotonic() < end:
        for line in glob.glob("/proc/[0-9]*/cmdline"):
            try:
                with open(line, "rb") as file:
                    if file.read().endswith(wanted):
                        return
            except OSError:
                pass
        time.sleep(0.02)


def every_way_out():
    script("echo ready; kill -KILL $$")
    t = run("run", "--rm", "-it", "-b", BUNDLE)
    check("a program that is killed", code(t.ended) == 137, t.ended)
    check("leaves the terminal as it was", t.restored())
    t.close()
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
        t = Terminal("run", "--rm", "-it", "-b", WORK + "/sleeps")
        program_runs()
        os.kill(t.pid, number)
        check(f"zncctl getting {number.name} ends as its program does", code(t.wait()) == 128 + number)
        check("and leaves the terminal as it was", t.restored())
        t.close()
    os.rename(BUNDLE + "/rootfs/bin/sh", BUNDLE + "/rootfs/bin/nosh")
    t = run("run", "--rm", "-it", "-b", BUNDLE)
    os.rename(BUNDLE + "/rootfs/bin/nosh", BUNDLE + "/rootfs/bin/sh")
    check("a program that cannot be started", code(t.ended) == 127, t.ended)
    check("leaves the terminal as it was, and a line", t.restored() and b"no such program" in t.text, t.text)
    t.close()


def stopping():
    script("echo ready; read a; echo got:$a")
    for words in (["-it"], ["-i"]):
        t = Terminal("run", "--rm", *words, "-b", BUNDLE)
        t.until("ready")
        during = termios.tcgetattr(t.child)
        os.kill(t.pid, signal.SIGTSTP)
        status = t.wait(os.WUNTRACED)
        check(f"zncctl {words} stops when it is told to", status is not None and os.WIFSTOPPED(status))
        check("with the terminal as it was", t.restored())
        os.kill(t.pid, signal.SIGCONT)
        check("and is on it again afterwards", t.settings_become(during))
        t.type("word\r")
        check("the program goes on", t.until("got:word"), t.text)
        check("to its end", code(t.wait()) == 0)
        t.close()


def nothing_of_the_callers_terminal():
    script("""exec 2>&1
/bin/busybox stat -c 'mode %a' -L /proc/self/fd/0
/bin/busybox readlink /proc/self/fd/0
echo terminals: $(ls /dev/pts)
(echo controlling >/dev/tty)
echo end; read a""".replace("ls /", "/bin/busybox ls /"))
    t = Terminal("run", "--rm", "-it", "-b", BUNDLE)
    t.until("end\r\n")
    check("--tty: other users cannot open the terminal", b"mode 600" in t.text, t.text)
    check("it is the container's own", b"\n/dev/pts/0\r\n" in t.text, t.text)
    check("which sees no other", b"terminals: 0 ptmx\r\n" in t.text, t.text)
    check("it is the program's controlling terminal", b"\ncontrolling" in t.text, t.text)
    t.type("\r")
    check("it ends", code(t.wait()) == 0)
    t.close()
    script("(exec /bin/busybox cat >/tmp/keys) & test -t 0 || test -t 1 || test -t 2 || echo none; exit 0")
    subprocess.run([ZNCCTL, "create", "leaves", BUNDLE], check=True)
    t = run("start", "-a", "leaves")
    check("start --attach: no stream is the caller's terminal", code(t.ended) == 0 and b"none" in t.text, t.text)
    t.type("secret\r")
    os.set_blocking(t.child, False)
    end = time.monotonic() + TIME
    typed = b""
    while not typed and time.monotonic() < end:
        try:
            typed = os.read(t.child, 100)
        except BlockingIOError:
            t.read()
    check("what the program left behind does not get the keys", typed == b"secret\n", typed)
    t.close()
    subprocess.run([ZNCCTL, "delete", "-qf", "leaves"], check=True)


def the_name_of_the_terminal():
    """Programs find the terminal by its name and open it again."""
    by_name = "busybox tty && echo opened >$(busybox tty); busybox stat -c 'user %u' $(busybox tty)"
    script(by_name)
    for keys in ("ctrl-p,ctrl-q", ""):
        t = run("run", "--rm", "-it", "--detach-keys", keys, "-b", BUNDLE)
        check(f"run -it, keys '{keys}': the terminal has a name", b"/dev/pts/0\r\nopened" in t.text, t.text)
        t.close()
    t = run("run", "--rm", "-it", "--user", "33:33", "-b", BUNDLE)
    check("it belongs to the user of the program", b"opened\r\nuser 33\r\n" in t.text, t.text)
    t.close()
    script("while :; do sleep 0.05; done")
    subprocess.run([ZNCCTL, "run", "-d", "--name", "base", "-b", BUNDLE], check=True, stdout=subprocess.DEVNULL)
    for user in ("0", "33"):
        t = run("exec", "-it", "-u", user, "base", "sh", "-c", by_name)
        check(f"exec -it of user {user}, too", f"opened\r\nuser {user}\r\n".encode() in t.text, t.text)
        t.close()
    subprocess.run([ZNCCTL, "delete", "-qf", "base"], check=True)
    script(by_name + "; read -r a")
    run("run", "-dit", "--name", "away", "-b", BUNDLE).close()
    check("and that of a detached program", log_becomes("away", b"opened\r\nuser 0\r\n"), log_of("away"))
    subprocess.run([ZNCCTL, "delete", "-qf", "away"], check=True)
    os.rename(BUNDLE + "/rootfs/dev", BUNDLE + "/rootfs/nodev")
    script("test -t 0 && echo terminal")
    t = run("run", "--rm", "-it", "-b", BUNDLE)
    os.rename(BUNDLE + "/rootfs/nodev", BUNDLE + "/rootfs/dev")
    check("a container without /dev gets a terminal without a name", b"terminal" in t.text, t.text)
    t.close()


def log_of(name):
    return subprocess.run([ZNCCTL, "logs", name], capture_output=True).stdout


def log_becomes(name, wanted):
    end = time.monotonic() + TIME
    while wanted not in log_of(name) and time.monotonic() < end:
        time.sleep(0.02)
    return wanted in log_of(name)


def waiting_input(terminal):
    return struct.unpack("i", fcntl.ioctl(terminal.child, termios.FIONREAD, b"\0" * 4))[0]


def typing_ahead():
    script("/bin/busybox stty raw -echo; echo ready; while ! test -e /tmp/go; do /bin/busybox sleep 0.02; done; exit 3")
    t = Terminal("run", "--rm", "--name", "ahead", "-it", "-b", BUNDLE)
    t.until("ready")
    # The kernel moves what was typed to where it is counted in its own time, so typing must not wait.
    os.set_blocking(t.master, False)
    end = time.monotonic() + TIME
    full = 0  # how often in a row nobody had taken any: zncctl takes no more than it can pass on
    while full < 200 and time.monotonic() < end:
        try:
            if waiting_input(t) < 3000:
                t.type("x" * 500)
                full = 0
                continue
        except BlockingIOError:
            pass
        full += 1
        time.sleep(0.001)
    os.set_blocking(t.master, True)
    check("more keys wait than it takes in", full == 200, waiting_input(t))
    top = subprocess.run([ZNCCTL, "top", "ahead"], capture_output=True, text=True).stdout
    with open(f"/proc/{top.splitlines()[1].split()[0]}/root/tmp/go", "w"):
        pass
    check("a program that reads nothing ends", code(t.wait()) == 3)
    check("what was typed for it is left to no shell", waiting_input(t) == 0, waiting_input(t))
    check("and the terminal as it was", t.restored())
    t.close()


def floods():
    script("/bin/busybox stty raw -echo; echo ready; /bin/busybox yes | /bin/busybox head -c 3000000; echo end; exit 4")
    t = Terminal("run", "--rm", "-it", "-b", BUNDLE)
    t.until("ready")
    os.set_blocking(t.master, False)
    for _ in range(1000):
        try:
            t.type("y" * 1000)
        except BlockingIOError:  # the program does not read, so zncctl does no more either
            break
        t.read()
    os.set_blocking(t.master, True)
    check("floods in both directions come to an end", t.until("end"), t.text[-100:])
    check("with the program's status", code(t.wait()) == 4)
    check("and the terminal as it was", t.restored())
    t.close()


def background():
    script("echo ready; read a; echo program got $a")
    for words in (["-i"], ["-it"]):
        t = Terminal("run", "--rm", *words, "-b", BUNDLE, in_background=True)
        check(f"run {words} in the background runs", t.until("ready"), t.text)
        check("and leaves the terminal alone", t.restored())
        t.type("first\r")
        check("and its keys to the shell", t.until("the shell got first"), t.text)
        if "-it" in words:
            check("until it comes to the front", t.settings_change())
        t.type("second\r")
        check("where it gets them", t.until("program got second"), t.text)
        check("to its end", code(t.wait()) == 0)
        check("with the terminal as it was", t.restored())
        t.close()


def detached():
    script("echo ready; exec sleep " + os.environ["MARK"])
    t = run("run", "-d", "--name", "away", "-b", BUNDLE)
    check("--detach prints the id", t.text == b"away\r\n", t.text)
    t.close()  # hangs the terminal up
    check("the program outlives the terminal", " running " in listed(), listed())
    top = subprocess.run([ZNCCTL, "top", "away"], capture_output=True, text=True).stdout
    pid = top.splitlines()[1].split()[0]
    streams = [os.readlink(f"/proc/{pid}/fd/{fd}") for fd in range(3)]
    check("its input is the null device", streams[0] == "/dev/null", streams)
    check("its output is no terminal", all(s.startswith("pipe:") for s in streams[1:]), streams)
    subprocess.run([ZNCCTL, "delete", "-qf", "away"], check=True)


def attaching():
    """A detached program with a terminal: attached to and left several times."""
    script("busybox stty size; while read -r line; do case $line in size) busybox stty size;; end) exit 7;;\n"
           "*) echo \"got $line\";; esac; done")
    t = run("run", "-dit", "--name", "away", "-b", BUNDLE)
    t.close()
    logs = lambda: subprocess.run([ZNCCTL, "logs", "away"], capture_output=True).stdout
    end = time.monotonic() + TIME
    while b"24 80" not in logs() and time.monotonic() < end:
        time.sleep(0.02)
    check("a detached terminal has 24 lines of 80 columns", logs().startswith(b"24 80\r\n"), logs())
    t = Terminal("attach", "away", rows=33, columns=111)
    check("attach uses raw mode", t.settings_change())
    t.type("hello\r")
    check("and passes on what is typed", t.until("got hello"), t.text)
    t.type("size\r")
    check("the program gets the size of the terminal", t.until("33 111"), t.text)
    t.resize(44, 99)
    t.type("size\r")
    check("also when it changes", t.until("44 99"), t.text)
    t.type("\x10x\r")
    check("a part of the detach keys is passed on", t.until(r"got \^?P?.*x"), t.text)
    t.type("\x10")
    t.type("\x11")
    ended = t.wait()
    check("ctrl-p ctrl-q ends attach with 0", code(ended) == 0, (ended, t.text))
    check("the terminal is restored", t.restored())
    t.close()
    check("the program runs on", " running " in listed(), listed())
    t = Terminal("attach", "--detach-keys", "z,ctrl-b", "away")
    check("it can be attached again", t.settings_change())
    t.type("\x10\x11zz\x02")
    ended = t.wait()
    check("and left by other keys", code(ended) == 0 and " running " in listed(), (ended, t.text))
    t.close()
    t = Terminal("attach", "--no-signals", "away")
    t.settings_change()
    os.kill(t.pid, signal.SIGTERM)
    check("a signal ends attach --no-signals", code(t.wait()) == 143 and t.restored())
    check("and not the program", " running " in listed(), listed())
    t.close()
    t = Terminal("attach", "--detach-keys", "", "away")
    t.settings_change()
    # the kernel's line of the program takes ctrl-q for itself, and x after it
    t.type("\x10\x11\rend\r")
    ended = t.wait()
    check("without keys it ends with the program", code(ended) == 7, (ended, t.text))
    check("the terminal is restored then, too", t.restored())
    t.close()
    subprocess.run([ZNCCTL, "delete", "-qf", "away"], check=True)
    t = run("attach", "--detach-keys", "ctrl-1", "away")
    check("keys that are none are a usage error", code(t.ended) == 64, t.text)
    t.close()
    piped = subprocess.run([ZNCCTL, "run", "-di", "--name", "piped", "-b", BUNDLE], capture_output=True)
    piped = subprocess.run([ZNCCTL, "attach", "piped"], input=b"one\ntwo\n", capture_output=True, timeout=TIME)
    check("a program without a terminal gets input and its end", piped.stdout.endswith(b"got one\ngot two\n")
          and piped.returncode == 0, piped)
    big = b"x" * 300 + b"\n"
    subprocess.run([ZNCCTL, "delete", "-qf", "piped"], check=True)
    subprocess.run([ZNCCTL, "run", "-di", "--name", "piped", "-b", BUNDLE], capture_output=True)
    piped = subprocess.run([ZNCCTL, "attach", "piped"], input=big * 1000, capture_output=True, timeout=TIME)
    check("however much that is", piped.stdout.count(b"got " + big) == 1000, len(piped.stdout))
    subprocess.run([ZNCCTL, "delete", "-qf", "piped"], check=True)


def is_gone(name):
    end = time.monotonic() + TIME
    while name in listed() and time.monotonic() < end:
        time.sleep(0.05)
    return name not in listed()


def leaving_run():
    """run -it, which the detach keys end while the program goes on."""
    script("read -r line; echo \"got $line\"; exit 5")
    words = ("run", "-it", "--rm", "--name", "left", "-b", BUNDLE)
    t = Terminal(*words)
    t.settings_change()
    t.type("text\r")
    check("run -it ends with its program", code(t.wait()) == 5 and b"got text" in t.text, t.text)
    check("and with --rm deletes the container", "left" not in listed(), listed())
    t.close()
    for options, keys in ((), "\x10\x11"), (("--detach-keys", "a,ctrl-b"), "a\x02"):
        t = Terminal(words[0], *options, *words[1:])
        t.settings_change()
        t.type(keys)
        check(f"run -it {options}: the keys end it with 0", code(t.wait()) == 0 and t.restored(), t.text)
        check("the program runs on", " running " in listed(), listed())
        t.close()
        t = Terminal("attach", "left")
        t.settings_change()
        t.type("late\r")
        check("it can be attached to", code(t.wait()) == 5 and b"got late" in t.text, t.text)
        t.close()
        check("and is deleted at its end", is_gone("left"), listed())
    t = Terminal("run", "-it", "--name", "left", "--detach-keys", "", "-b", BUNDLE)
    t.settings_change()
    t.type("a\x10\x11\x11\r")
    check("--detach-keys '' switches the keys off", code(t.wait()) == 5, t.text)
    t.close()
    subprocess.run([ZNCCTL, "delete", "-q", "left"], check=True)


def what_goes_on_is_complete():
    """The log and the exit code of a program that was left, and one whose zncctl was killed."""
    script("echo first; while read -r line; do echo \"got $line\"; [ \"$line\" = end ] && exit 6; done")
    t = Terminal("run", "-it", "--name", "left", "-b", BUNDLE)
    t.until("first")
    t.type("one\r")
    t.until("got one")
    check("the output in the foreground is logged", log_becomes("left", b"got one\r\n"), log_of("left"))
    other = Terminal("attach", "left")
    other.settings_change()
    other.type("two\r")
    check("others can attach meanwhile", other.until("got two") and t.until("got two"), (other.text, t.text))
    other.type("\x10\x11")
    check("and leave", code(other.wait()) == 0)
    other.close()
    t.type("\x10\x11")
    check("the keys end run", code(t.wait()) == 0)
    t.close()
    t = Terminal("attach", "left")
    t.settings_change()
    t.type("end\r")
    check("the program ends for the one who is attached", code(t.wait()) == 6, t.text)
    t.close()
    wait = subprocess.run([ZNCCTL, "wait", "left"], capture_output=True, text=True).stdout
    check("its exit code is known", wait.strip() == "6", wait)
    said = [line for line in log_of("left").decode().split("\r\n") if line.startswith(("first", "got"))]
    check("its log is complete and in order", said == ["first", "got one", "got two", "got end"], said)
    subprocess.run([ZNCCTL, "delete", "-q", "left"], check=True)
    t = Terminal("run", "-it", "--rm", "--name", "left", "-b", BUNDLE)
    t.until("first")
    os.kill(t.pid, signal.SIGKILL)
    t.wait()
    t.close()
    check("killing run leaves the program running", " running " in listed(), listed())
    t = Terminal("attach", "left")
    t.settings_change()
    t.type("end\r")
    check("which can be attached to", code(t.wait()) == 6, t.text)
    t.close()
    check("and is deleted at its end", is_gone("left"), listed())


def leaving_start():
    script("read -r line; echo \"got $line\"; exit 5")
    subprocess.run([ZNCCTL, "create", "-it", "--name", "left", "-b", BUNDLE], check=True, stdout=subprocess.DEVNULL)
    t = Terminal("start", "-a", "--detach-keys", "z", "left")
    t.settings_change()
    t.type("z")
    check("start -a can be left, too", code(t.wait()) == 0 and " running " in listed(), t.text)
    t.close()
    subprocess.run([ZNCCTL, "delete", "-qf", "left"], check=True)


def leaving_exec():
    script("while :; do sleep 0.05; done")
    subprocess.run([ZNCCTL, "run", "-d", "--name", "base", "-b", BUNDLE], check=True, stdout=subprocess.DEVNULL)
    # more output than a terminal holds: it must not block when nobody reads it any more
    later = "echo ready; while ! test -e /tmp/go; do sleep 0.05; done; busybox yes | busybox head -c 300000; >/tmp/done"
    t = Terminal("exec", "-it", "base", "sh", "-c", later)
    t.until("ready")
    t.type("\x10\x11")
    check("exec -it: the keys end it with 0", code(t.wait()) == 0 and t.restored(), t.text)
    t.close()
    subprocess.run([ZNCCTL, "exec", "base", "sh", "-c", ">/tmp/go"], check=True)
    is_done = lambda: subprocess.run([ZNCCTL, "exec", "base", "sh", "-c", "test -e /tmp/done"]).returncode == 0
    end = time.monotonic() + TIME
    while not is_done() and time.monotonic() < end:
        time.sleep(0.05)
    check("its program goes on", is_done())
    t = Terminal("exec", "-it", "--detach-keys", "", "base", "sh", "-c", "busybox stty -ixon; read -r a; exit 3")
    t.settings_change()
    t.type("\x10\x11\x11\r")
    check("--detach-keys '' switches the keys off", code(t.wait()) == 3, t.text)
    t.close()
    subprocess.run([ZNCCTL, "delete", "-qf", "base"], check=True)


def more_programs():
    """A terminal of exec: another program in a container that runs already."""
    script("while :; do sleep 0.05; done")
    subprocess.run([ZNCCTL, "run", "-d", "--name", "base", "-b", BUNDLE], check=True, stdout=subprocess.DEVNULL)
    shell = ("sh", "-c")
    t = run("exec", "-it", "base", *shell, "test -t 0 && test -t 1 && test -t 2 && echo terminal; "
            "echo $TERM; /bin/busybox stty size; echo word >/dev/tty; exit 4", rows=33, columns=111)
    check("exec -it: all three streams are a terminal", b"terminal" in t.text, t.text)
    check("of the size of the caller's", b"33 111" in t.text, t.text)
    check("of a type that is known everywhere", b"xterm" in t.text, t.text)
    check("it is the program's controlling terminal", b"word" in t.text, t.text)
    check("the exit status is passed on", code(t.ended) == 4, t.ended)
    check("the terminal is as it was", t.restored())
    t.close()

    t = Terminal("exec", "-it", "base", *shell, "echo ready; read a; echo got:$a; read b; " + WAIT_FOR_SIZE +
                 "; trap 'echo interrupted; exit 9' INT; echo set; while :; do sleep 0.05; done")
    check("it begins", t.until("ready"), t.text)
    check("the caller's terminal is raw meanwhile", not t.restored())
    t.type("word\r")
    check("what is typed arrives", t.until("got:word"), t.text)
    t.resize(40, 100)
    t.type("\r")
    check("a new size arrives", t.until("40 100"), t.text)
    t.until("set")
    t.type("\x03")
    check("the interrupt key interrupts the program", t.until("interrupted"), t.text)
    check("which ends as it likes", code(t.wait()) == 9)
    check("the terminal is as it was again", t.restored())
    check("the container has got no signal", " running " in listed(), listed())
    t.close()

    t = Terminal("exec", "-t", "base", *shell, "echo ready; exec sleep " + os.environ["MARK"])
    check("exec -t without -i begins", t.until("ready"), t.text)
    check("the caller's terminal is left alone", t.restored())
    t.type("\x03")
    check("the interrupt key ends the program through zncctl", code(t.wait()) == 130)
    t.close()

    t = run("exec", "-it", "base", "no-such-program")
    check("exec -it of a program that is not there exits 127", code(t.ended) == 127, t.ended)
    check("its message is shown", b"no-such-program" in t.text, t.text)
    check("on the terminal as it was", t.restored())
    t.close()

    t = run("stats", "--no-stream", "base")
    check("stats replaces the table only while it goes on", b"\x1b" not in t.text and b"base" in t.text, t.text)
    t.close()
    t = Terminal("stats", "base")
    check("stats replaces the table on a terminal", t.until(r"\x1b\[H\x1b\[2JID[^\x1b]*base[^\x1b]*\x1b\[H"), t.text)
    t.type("\x03")
    check("until it is interrupted", t.wait() == signal.SIGINT)
    t.close()
    subprocess.run([ZNCCTL, "delete", "-q", "-f", "base"], check=True)


def colours():
    red = b"\x1b[1;31merror:"
    for name, good, environment in (
        ("an error is red on a terminal", True, {}),
        ("not with NO_COLOR", False, {"NO_COLOR": "1"}),
        ("an empty NO_COLOR means nothing", True, {"NO_COLOR": ""}),
        ("not on a terminal without colours", False, {"TERM": "dumb"}),
    ):
        t = run("state", "nosuch", **environment)
        check(name, (red in t.text) == good and b"Container does not exist" in t.text, t.text)
        t.close()


def widths():
    deep = WORK + "/" + "deep/" * 20
    os.makedirs(deep)
    os.symlink(BUNDLE + "/rootfs", deep + "rootfs")
    with open(BUNDLE + "/config.json") as source, open(deep + "config.json", "w") as copy:
        copy.write(source.read())
    subprocess.run([ZNCCTL, "create", "wide", deep], check=True)
    t = run("list", columns=50)
    lines = t.text.decode().splitlines()
    check("a table is as wide as the terminal", len(lines) == 2 and len(lines[1]) == 50, lines)
    t.close()
    t = run("list", "--no-trunc", columns=50)
    check("--no-trunc: as wide as need be", deep.rstrip("/").encode() in t.text, t.text)
    t.close()
    check("without a terminal, too", deep.rstrip("/") in listed(), listed())
    subprocess.run([ZNCCTL, "delete", "-q", "wide"], check=True)


def progress():
    t = run("unpack", os.environ["LAYOUT"], WORK + "/unpacked")
    check("unpacking redraws a line", code(t.ended) == 0 and t.text.startswith(b"\r\x1b[Klayer 1/1 "), t.text)
    check("to its end", b"100% of " in t.text and re.search(rb"\[=+\]\r\n$", t.text) is not None, t.text[-200:])
    t.close()
    t = run("unpack", "--progress", "plain", os.environ["LAYOUT"], WORK + "/unpacked2")
    check("--progress plain does not", b"\x1b" not in t.text and b"done" in t.text, t.text)
    t.close()


for trial in (a_terminal_of_its_own, typing_and_sizes, keys_that_are_signals, every_way_out, stopping,
              nothing_of_the_callers_terminal, the_name_of_the_terminal, typing_ahead, floods, background, detached,
              attaching, leaving_run, what_goes_on_is_complete, leaving_start, leaving_exec, more_programs, colours, widths, progress):
    trial()
sys.exit(failed != 0)
