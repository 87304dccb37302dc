#!/usr/bin/env bash
# Tests of zncrun exec, terminals, descriptors, pause, resume, update, ps and events.
# shellcheck source=oci_lib.sh disable=SC2016
. "$(dirname "$0")/oci_lib.sh"

make_bundle web sleep 1000
change web '.process.env += ["NAME=own"]'
run zncrun run --detach --bundle "$work/web" "$me-web"
expect 'a container' 0 ''
inside() { run zncrun exec "$@"; }

inside "$me-web" sh -c 'echo $NAME; exit 4'
expect 'exec has environment and exit status' 4 own
inside --env NAME=other --cwd /tmp "$me-web" sh -c 'echo $NAME $(pwd)'
expect 'options of exec' 0 'other /tmp'
inside "$me-web" mkdir -p /twice/twice
inside --cwd /twice "$me-web" pwd
expect 'a working directory of exec that has one of the same path in it' 0 /twice
printf '#!/bin/sh\necho found in "$PWD"\n' >"$work/web/rootfs/data/own"
chmod 755 "$work/web/rootfs/data/own"
inside --cwd /data "$me-web" ./own
expect 'a program name with a "/" is about the working directory' 0 'found in /data'
inside "$me-web" ./own
exec_refused 'also if it is not there' 'exec: "./own": stat ./own: no such file'
inside "$me-web" /etc
exec_refused 'a directory is no program' 'exec: "/etc": permission denied'
make_bundle relative ./own
cp "$work/web/rootfs/data/own" "$work/relative/rootfs/data/own"
change relative '.process.cwd = "/data"'
run zncrun run --bundle "$work/relative" "$me-relative"
expect 'the program of a container, too' 0 'found in /data'
inside --user 1000:1001 --additional-gids 7 "$me-web" sh -c 'echo $(id -u):$(id -G) $HOME'
expect 'the user of exec' 0 '1000:1001 7 /home/user'
inside --additional-gids abc "$me-web" true
exec_refused 'a supplementary group that is no number' '--additional-gids: "abc"'
inside "$me-web" sh -c 'ps | grep -c "[s]leep 1000"'
expect 'a program of exec sees the processes of the container' 0 1
inside "$me-web" nosuch
exec_refused 'a missing program' 'exec: "nosuch": executable file not found in $PATH'
printf 'given\n' | zncrun exec "$me-web" cat >"$work/out"
check 'exec --process - reads the standard input' grep -qx given "$work/out"
jq -n '{args: ["sh", "-c", "echo $X $(id -u); grep NoNewPrivs /proc/self/status"], cwd: "/", env: ["PATH=/bin", "X=y"],
    user: {uid: 1000, gid: 1000}, noNewPrivileges: true}' >"$work/process.json"
inside --process "$work/process.json" "$me-web"
expect 'a process file' 0 $'y 1000\nNoNewPrivs:\t1'
jq '.selinuxLabel = "x"' "$work/process.json" >"$work/bad.json"
inside --process "$work/bad.json" "$me-web"
exec_refused 'unsupported members of a process file are refused' 'process.selinuxLabel'
if [[ $(cat /sys/module/apparmor/parameters/enabled 2>/dev/null) != Y ]]; then
    inside --apparmor profile "$me-web" true
    exec_refused 'unsupported settings are refused as options' 'process.apparmorProfile'
fi
for change in '[]:process' '.terminal = 1:process.terminal' '.args = ["a", 1]:process.args[1]' '.cwd = 1:process.cwd' \
    '.env = "A=b":process.env' '.consoleSize = {height: "a"}:process.consoleSize.height' '.user = 1:process.user'; do
    jq "${change%:*}" "$work/process.json" >"$work/bad.json"
    inside --process "$work/bad.json" "$me-web"
    exec_refused "a process file changed by ${change%:*}" "${change##*:}: not "
done
jq '.args = ["sleep", "500"]' "$work/process.json" >"$work/sleep.json"
inside --detach --pid-file "$work/pid" --process "$work/sleep.json" "$me-web"
expect 'detached' 0 ''
pid=$(<"$work/pid")
check 'the pid file names the program' grep -qa sleep "/proc/$pid/cmdline"
check 'the process is in the PID namespace of the container' test \
    "$(readlink "/proc/$pid/ns/pid")" = "$(readlink "/proc/$(state_of "$me-web" .pid)/ns/pid")"
inside --detach --pid-file "$work/nosuch/pid" "$me-web" sleep "$mark"
exec_refused 'a pid file that cannot be written' "$work/nosuch/pid"
check 'the program does not stay after a failure' eventually not pgrep -f "sleep $mark"
run zncrun ps --format json "$me-web"
check 'ps lists both' jq -e "length == 2 and index($pid) != null" "$work/out"

# Descriptors.
exec 3</etc/hostname 4</etc/passwd
run zncrun exec "$me-web" sh -c 'ls /proc/self/fd'
check 'a program gets no descriptors but the standard streams' not grep -q '^4' "$work/out"
run zncrun exec --preserve-fds 2 "$me-web" sh -c 'cat <&4'
exec 3<&- 4<&-
expect 'preserved descriptors' 0 "$(</etc/passwd)"
exec 4</dev/null 7</etc/shadow
run zncrun exec --preserve-fds 2 "$me-web" true
exec_refused 'a descriptor that is not open cannot be preserved' '--preserve-fds: descriptor 3 is not open'
exec 3</dev/null
run zncrun exec --preserve-fds 1 "$me-web" sh -c 'ls /proc/self/fd | grep -c "^7"'
expect 'no other descriptors than the preserved ones are passed on' 1 0
exec 3<&- 4<&- 7<&-

# A terminal.
run with_terminal "$work/socket" "$ZNCRUN" --root "$work/state" exec --tty \
    --console-socket "$work/socket" "$me-web" sh -c 'tty; exec 3<>/dev/tty && echo controlling'
expect 'exec with a terminal' 0 $'/dev/pts/0\ncontrolling'
jq '.args = ["stty", "size"] | .terminal = true | .consoleSize = {height: 33, width: 133}' "$work/process.json" \
    >"$work/size.json"
run with_terminal "$work/socket4" "$ZNCRUN" --root "$work/state" exec \
    --process "$work/size.json" --console-socket "$work/socket4" "$me-web"
expect 'the terminal of exec has the size in the process file' 0 '33 133'
make_bundle tty sh -c 'tty; stty size; ls -l /dev/console | head -c 1; echo; exec 3<>/dev/tty && echo controlling'
change tty '.process.terminal = true | .process.consoleSize = {height: 30, width: 90}'
run with_terminal "$work/$(printf 'long%.0s' {1..30})" "$ZNCRUN" --root "$work/state" run \
    --bundle "$work/tty" --console-socket "$work/$(printf 'long%.0s' {1..30})" "$me-tty"
check 'a container with a terminal (its socket has a long path)' test "$status" = 1
run with_terminal "$work/socket2" "$ZNCRUN" --root "$work/state" run \
    --bundle "$work/tty" --console-socket "$work/socket2" "$me-tty"
expect 'a container with a terminal' 0 $'/dev/pts/0\n30 90\nc\ncontrolling'
run zncrun create --bundle "$work/tty" "$me-tty"
refused 'a terminal of a container in the background needs a socket' 'console socket'
run zncrun run --detach --bundle "$work/tty" "$me-tty"
refused 'a terminal of a detached container needs a socket' 'console socket'
run zncrun exec --tty --detach "$me-web" tty
exec_refused 'a terminal of a detached program needs a socket' 'console socket'

# A program in the foreground is connected with the terminal of the caller.
cat >"$work/screen.py" <<'P'
import fcntl, os, pty, signal, struct, sys, termios
def resize(fd, rows, columns):
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
pid, screen = pty.fork()
if pid == 0:
    os.read(0, 1)  # when the size is set
    os.execv(sys.argv[1], sys.argv[1:])
signal.alarm(60)
resize(screen, 40, 100)
os.write(screen, b"\n")
seen = b""
typed = resized = False
while True:
    try:
        got = os.read(screen, 4096)
    except OSError:
        break
    seen += got
    if b"type" in seen and not typed:
        typed = True
        os.write(screen, b"words\r")
    if b"resize" in seen and not resized:
        resized = True
        resize(screen, 50, 120)
_, status = os.waitpid(pid, 0)
sys.stdout.write(seen.decode().replace("\r", "").lstrip("\n"))
sys.exit(os.waitstatus_to_exitcode(status))
P
program tty sh -c 'stty size; stty -echo; echo type; read -r x; echo "got $x"
    trap "stty size; exit 6" WINCH; echo resize; while :; do sleep 0.05; done'
change tty 'del(.process.consoleSize)'
run timeout 60 python3 "$work/screen.py" "$ZNCRUN" --root "$work/state" run --bundle "$work/tty" "$me-tty"
expect 'run passes on input, output, sizes and the exit status' 6 $'40 100\ntype\ngot words\nresize\n50 120'
run timeout 60 python3 "$work/screen.py" "$ZNCRUN" --root "$work/state" exec --tty "$me-web" \
    sh -c 'stty size; stty -echo; echo type; read -r x; echo "got $x"; exit 7'
expect 'so does exec' 7 $'40 100\ntype\ngot words'
run zncrun exec --tty "$me-web" sh -c 'tty; read -r x || echo end'
check 'without a terminal of the caller, the program has one and sees the end of the input' \
    test "$status/${out//$'\r'/}" = $'0//dev/pts/0\nend'
program tty sh -c 'tty; stty size; ls -l /dev/console | head -c 1; echo; exec 3<>/dev/tty && echo controlling'
change tty '.process.consoleSize = {height: 30, width: 90}'
chown -R 100000:100000 "$work/tty/rootfs"
change tty '.linux.namespaces += [{type: "user"}] | .linux.uidMappings = [{containerID: 0, hostID: 100000, size: 500}]
    | .linux.gidMappings = .linux.uidMappings | .process.args[2] += "; stat -c %u /dev/pts/0"'
run with_terminal "$work/socket3" "$ZNCRUN" --root "$work/state" run \
    --bundle "$work/tty" --console-socket "$work/socket3" "$me-tty"
expect 'a terminal works with a user namespace' 0 $'/dev/pts/0\n30 90\nc\ncontrolling\n0'

# Control.
run zncrun pause "$me-web"
expect 'pause' 0 ''
check 'the state is paused' is_state "$me-web" paused
inside "$me-web" true
exec_refused 'exec in a paused container' paused
timeout 60 "$ZNCRUN" --root "$work/state" exec --ignore-paused "$me-web" echo thawed >"$work/thawed" &
waiting=$!
run zncrun resume "$me-web"
expect 'resume' 0 ''
check 'exec --ignore-paused waits until the container continues' wait "$waiting"
check 'its program runs' grep -qx thawed "$work/thawed"
check 'the state is running' is_state "$me-web" running
printf '{"pids":{"limit":50}}' >"$work/resources"
run zncrun update --resources "$work/resources" "$me-web"
expect 'update' 0 ''
printf '{"devices":[{"allow":false,"access":"rwm"}]}' >"$work/resources"
run zncrun update --resources "$work/resources" "$me-web"
inside "$me-web" sh -c 'echo >/dev/null && head -c 3 /dev/zero | wc -c'
expect 'devices that every container has stay usable' 0 3
run zncrun update --resources - "$me-web" <<<'{"memory":{"limit":"x"}}'
check 'wrong limits are refused' test "$status" = 1
run zncrun update --memory 64M --memory-reservation 32m "$me-web"
expect 'limits of memory have units' 0 ''
run zncrun update --memory 64X "$me-web"
refused 'an unknown unit is refused' '--memory: "64X" is not a number'
run zncrun events --stats "$me-web"
check 'events --stats has the limit' jq -e '.data.pids.limit == 50 and .data.memory.usage.usage > 0 and .data.memory.usage.limit == 67108864' \
    "$work/out"
run zncrun events --interval 1 "$me-web"
refused 'an interval without a unit' '--interval: "1" is not a time'
run zncrun ps "$me-web"
check 'ps prints the table of ps(1)' grep -qE '^UID +PID ' "$work/out"
check 'ps has the programs of the container' grep -q 'sleep 1000' "$work/out"
check 'ps has no other programs' test "$(grep -c "${0##*/}" "$work/out")" = 0
run zncrun ps "$me-web" -o pid,args
check 'ps passes options on' grep -qE '^ *PID COMMAND' "$work/out"
inside --process <(jq '.args = ["echo", "piped"]' "$work/process.json") "$me-web"
expect 'the program of exec from a pipe' 0 piped
mkfifo "$work/fifo"
inside --process "$work/fifo" "$me-web"
exec_refused 'a named pipe that nobody writes to' "$work/fifo: Connection timed out"
head -c 5000000 /dev/zero >"$work/fifo" &
inside --process "$work/fifo" "$me-web"
exec_refused 'a pipe with more than a process document can have' "$work/fifo: File too large"

# exec --cgroup: groups below that of the container.
group_of() { sed -n "s/.*:$1:\\(.*\\)/\\1/p" /proc/"$(state_of "$me-web" .pid)"/cgroup; }
inside --cgroup .. "$me-web" true
exec_refused 'no group above that of the container' '.. is not a sub cgroup path'
inside --cgroup nosuch "$me-web" true
exec_refused 'a group that does not exist' '/nosuch/cgroup.procs: no such file'
inside --cgroup nosuch:/ "$me-web" true
exec_refused 'a controller that does not exist' 'unknown controller in "nosuch"'
inside --cgroup / "$me-web" cat /proc/self/cgroup
check "the container's own group" test "$out" = "$(cat "/proc/$(state_of "$me-web" .pid)/cgroup")"
if [[ -d /sys/fs/cgroup/pids$(group_of pids) && -d /sys/fs/cgroup/memory ]]; then
    mkdir "/sys/fs/cgroup/pids$(group_of pids)/below" "/sys/fs/cgroup/memory$(group_of memory)/other"
    inside --cgroup pids:below --cgroup memory:/other "$me-web" cat /proc/self/cgroup
    check 'a group of one controller' grep -q ":pids:$(group_of pids)/below\$" "$work/out"
    check 'a group of another controller' grep -q ":memory:$(group_of memory)/other\$" "$work/out"
    check 'the groups of all others are those of the container' \
        test "$(grep -c "$(group_of freezer)\$" "$work/out")" -gt 2
    inside --cgroup memory,nosuch:/other "$me-web" true
    exec_refused 'one unknown controller of several' 'unknown controller in "memory,nosuch"'
    inside --cgroup pids:below/../.. "$me-web" true
    exec_refused 'no way out of the group' 'below/../.. is not a sub cgroup path'
else
    printf '# the groups of single controllers of exec --cgroup: no control groups v1\n'
fi

# --debug: what is done, in the log or on standard error.
run zncrun --debug --log "$work/debug.log" exec "$me-web" true
check 'debug messages in the log' test "$(grep -c 'level=debug' "$work/debug.log")" -gt 2
check 'and not on standard error' test -z "$err"
check 'they say what was started' grep -q "level=debug msg=\"container $me-web: exec started, process [0-9]*\"" "$work/debug.log"
run zncrun --debug --log-format json exec "$me-web" true
check 'without a log on standard error' \
    jq -se 'length > 2 and all(.level == "debug" and (.msg | length) > 0)' "$work/err"

# events: statistics until the container ends, and each process that is killed for want of memory.
make_bundle hungry sh -c 'trap "exit 0" TERM; while :; do sleep 0.05; done'
run zncrun run --detach --bundle "$work/hungry" "$me-hungry"
timeout 60 "$ZNCRUN" --root "$work/state" events --interval 100ms "$me-hungry" >"$work/events" &
events=$!
run zncrun update --memory 16M --memory-swap 16M "$me-hungry"
inside "$me-hungry" sh -c 'head -c 100000000 /dev/zero | sort >/dev/null'
check 'events reports that the memory was used up' \
    eventually grep -qxF "{\"type\":\"oom\",\"id\":\"$me-hungry\"}" "$work/events"
check 'events prints statistics repeatedly' \
    eventually awk '/"type":"stats"/ { n++ } END { exit n < 2 }' "$work/events"
run zncrun delete --force "$me-hungry"
check 'events ends with the container' wait "$events"
run zncrun pause "$me-web"
run zncrun delete --force "$me-web"
expect 'a paused container is deleted by force' 0 ''
check 'the program of exec is killed with the container' eventually not lives "$pid"
inside "$me-web" true
exec_refused 'exec in what is gone' 'does not exist'
finish
