#!/usr/bin/env bash
# Tests of readiness notification: what a container sends to its socket, and what the service manager gets.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"

# A service manager: one line for each message, in JSON. It closes the descriptors that come with a message.
cat >"$work/manager.py" <<'P'
import array, json, os, socket, sys
manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
name = sys.argv[1]
manager.bind("\0" + name[1:] if name[0] == "@" else name)
print(json.dumps("listening"), flush=True)
while True:
    text, control, flags, address = manager.recvmsg(65536, socket.CMSG_SPACE(64))
    fds = array.array("i")
    for level, kind, data in control:
        fds.frombytes(data[:len(data) - len(data) % fds.itemsize])
    print(json.dumps(text.decode()), flush=True)
    for fd in fds:
        os.close(fd)
P
manager=
listen_at() { # NAME: starts a service manager, whose messages are in $work/heard
    [[ -n $manager ]] && kill "$manager" && wait "$manager" 2>/dev/null
    : >"$work/heard"
    timeout 300 python3 "$work/manager.py" "$1" >"$work/heard" &
    manager=$!
    check "a service manager listens at $1" eventually grep -q listening "$work/heard"
    export NOTIFY_SOCKET=$1
}
heard() { tail -n +2 "$work/heard"; }
has_heard() { [[ $(heard) == "$1" ]]; }

make_bundle web true
cp "$NOTIFY_SEND" "$work/web/rootfs/bin/send"
chmod 1777 "$work/web/rootfs/tmp"
plain=$(<"$work/web/config.json")

# create, start
listen_at "$work/manager"
program web sh -c 'while [ ! -e /tmp/go ]; do sleep 0.05; done; send READY=1; exec sleep 1000'
run zncrun create --bundle "$work/web" "$me-web"
expect 'create' 0 ''
timeout 60 "$ZNCRUN" --root "$work/state" start "$me-web" &
starter=$!
check 'the program runs' eventually is_state "$me-web" running
check 'start waits for the program to be ready' lives "$starter"
check 'nothing is said before' has_heard ''
touch "$work/web/rootfs/tmp/go"
status=0
wait "$starter" || status=$?
check 'start ends when it is' test "$status" = 0
check 'the service manager hears it, with the process id of the program' \
    has_heard "\"MAINPID=$(state_of "$me-web" .pid)\\nREADY=1\""$'\n"BARRIER=1"'
run zncrun exec "$me-web" sh -c 'echo "$NOTIFY_SOCKET"; ls /run/notify; touch /run/notify/x || echo read-only'
expect 'its socket is in a read-only directory of its own' 0 $'\nnotify.sock\nread-only'
run zncrun delete --force "$me-web"

# A hostile container.
listen_at @"$me-manager"
program web sh -c 'long=$(printf "%05000d" 0)
    send MAINPID=1 STOPPING=1 READY=10 " READY=1" "XREADY=1" FDSTORE=1 BARRIER=1 "" "$long
READY=1"
    for i in 1 2 3 4 5 6 7 8 9; do send STATUS=$i WATCHDOG=1 ERRNO=1 STATUS=$i; done
    echo sent; send "STATUS=x
READY=1
MAINPID=1
EXTEND_TIMEOUT_USEC=1"; while send STOPPING=1 2>/dev/null; do sleep 0.05; done'
"$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web" >"$work/out" 2>"$work/err" </dev/null &
runner=$!
status=0
wait "$runner" || status=$?
run_out=$(<"$work/out")
check "a container that sends anything" test "$status/$run_out" = 0/sent
check 'only its readiness is passed on, with the process that waits for it' has_heard "\"MAINPID=$runner\\nREADY=1\""

# What does not get ready.
listen_at "$work/manager2"
program web sh -c 'send STATUS=no; exit 3'
run zncrun run --bundle "$work/web" "$me-web"
expect 'a container that ends before' 3 ''
run zncrun run --detach --bundle "$work/web" "$me-web"
expect 'also with --detach' 0 ''
run zncrun delete "$me-web"
program web sh -c 'send READY=1; exit 4'
run zncrun run --bundle "$work/web" "$me-web"
check 'one that ends right after' test "$status" = 4
check 'its readiness is heard' test "$(heard | grep -c READY=1)" = 1
program web sh -c 'while :; do send STATUS=busy; done'
"$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web" >/dev/null 2>&1 </dev/null &
runner=$!
check 'a container that sends without end' eventually is_state "$me-web" running
kill -KILL "$(state_of "$me-web" .pid)"
status=0
wait "$runner" || status=$?
check 'does not hold up its end' test "$status" = 137

# Users of the container, also of a user namespace.
printf '%s' "$plain" >"$work/web/config.json"
listen_at "$work/manager3"
program web send READY=1
change web '.process.user = {uid: 1000, gid: 1000} | .linux.namespaces += [{type: "user"}]
    | .linux.uidMappings = [{containerID: 0, hostID: 100000, size: 65536}] | .linux.gidMappings = .linux.uidMappings'
chmod 755 "$work"
run zncrun run --bundle "$work/web" "$me-web"
expect 'any user of a user namespace' 0 ''
check 'can say that the container is ready' test "$(heard | grep -c READY=1)" = 1
printf '%s' "$plain" >"$work/web/config.json"

# What the engine has prepared is left to it.
change web '.process.env += ["NOTIFY_SOCKET=/engine/socket"]'
program web sh -c 'echo "$NOTIFY_SOCKET"; ls /run/notify 2>/dev/null'
run zncrun run --bundle "$work/web" "$me-web"
check 'a socket in the configuration is the one' test "$out" = /engine/socket
printf '%s' "$plain" >"$work/web/config.json"

# Without a service manager.
NOTIFY_SOCKET='' run zncrun run --bundle "$work/web" "$me-web"
expect 'an empty name is none' 0 ''
NOTIFY_SOCKET=$work/nosuch run zncrun run --bundle "$work/web" "$me-web"
refused 'a service manager that does not listen' "NOTIFY_SOCKET $work/nosuch"
NOTIFY_SOCKET=vsock:2:1 run zncrun run --bundle "$work/web" "$me-web"
refused 'a socket of another kind' 'is not the path of a socket'
NOTIFY_SOCKET='' run zncrun create --bundle "$work/web" "$me-web"
run zncrun start "$me-web"
expect 'start does not wait if create gave no socket' 0 ''
run zncrun delete --force "$me-web"
kill "$manager"
wait "$manager" 2>/dev/null
finish
