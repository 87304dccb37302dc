#!/usr/bin/env bash
# Tests of what zncrun must not do to others: to processes, files and names that do not belong to
# the container, whatever the configuration, the caller or another container have prepared.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"

make_bundle web sleep 1000
plain=$(<"$work/web/config.json")
plain_again() { printf '%s' "$plain" >"$work/web/config.json"; }

# Control groups that others use.
change web '.linux.cgroupsPath = "/zncrun/'"$me"'-one" | .process.args = ["true"]'
run zncrun create --bundle "$work/web" "$me-ended"
run zncrun start "$me-ended"
check 'a container ends' eventually is_state "$me-ended" stopped
program web sleep 1000
run zncrun run --detach --bundle "$work/web" "$me-next"
expect 'the group of an ended container can be used by another' 0 ''
run zncrun delete "$me-ended"
expect 'the ended container is deleted' 0 ''
check 'the other container of the group runs' is_state "$me-next" running
change web '.linux.cgroupsPath = "/zncrun/'"$me"'-one/below"'
run zncrun run --detach --bundle "$work/web" "$me-below"
taken=$me-below
if [[ -e /sys/fs/cgroup/cgroup.controllers ]]; then
    # There a group that has processes and lets others have controllers has no groups for processes below it.
    refused 'cgroup v2 has no container in a group below that of another one' 'not supported'
    taken=$me-next
    change web '.linux.cgroupsPath = "/zncrun/'"$me"'-one"'
else
    expect 'a container in a group below that of another one' 0 ''
    run zncrun delete --force "$me-next"
    expect 'the container of the upper group is deleted' 0 ''
    check 'the container of the lower group runs' is_state "$taken" running
fi
run "$ZNCRUN" --root "$work/elsewhere" create --bundle "$work/web" "$taken"
refused 'a group with processes is not taken' 'busy'
check 'the processes in the group run' is_state "$taken" running
run zncrun delete --force "$taken"
expect 'the container in it is deleted' 0 ''
rmdir /sys/fs/cgroup/*/zncrun/"$me-one" /sys/fs/cgroup/zncrun/"$me-one" 2>/dev/null
plain_again
change web '.linux.namespaces |= map(select(.type != "pid")) |
    .process.args = ["sh", "-c", "sleep '"$mark"' & echo up"]'
run zncrun run --bundle "$work/web" "$me-web"
check 'what outlives the first process is killed with the group' not pgrep -f "sleep $mark"
plain_again

# Containers with the same id.
change web '.process.args = ["sleep", "1000"]'
run zncrun run --detach --bundle "$work/web" "$me-web"
expect 'a container' 0 ''
run "$ZNCRUN" --root "$work/elsewhere" run --detach --bundle "$work/web" "$me-web"
expect 'another one with the same id below another root directory' 0 ''
run zncrun ps --format json "$me-web"
check 'they do not share a group' test "$(jq length "$work/out")" = 1
run "$ZNCRUN" --root "$work/elsewhere" delete --force "$me-web"
expect 'one is deleted' 0 ''
check 'the other one lives' is_state "$me-web" running
run zncrun delete --force "$me-web"

# Callers that ignore the ends of their children.
cat >"$work/ignore.py" <<'P'
import os, signal, sys
signal.signal(signal.SIGCHLD, signal.SIG_IGN)
os.execv(sys.argv[1], sys.argv[1:])
P
program web sh -c 'exit 6'
run timeout 20 python3 "$work/ignore.py" "$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web"
expect 'run has the status of a program whose end its caller ignores' 6 ''
change web '.hooks = {createRuntime: [{path: "/bin/true", timeout: 5}]}'
run timeout 20 python3 "$work/ignore.py" "$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web"
expect 'hooks end although the caller ignores SIGCHLD' 6 ''
plain_again

# A paused container is killed.
run zncrun run --detach --bundle "$work/web" "$me-web"
run zncrun pause "$me-web"
run zncrun kill "$me-web" KILL
expect 'kill of a paused container' 0 ''
check 'a killed paused container ends' eventually is_state "$me-web" stopped
run zncrun delete "$me-web"

# Files of volumes at the places of devices.
mkdir -p "$work/volume"
for name in null zero fd core ptmx; do echo mine >"$work/volume/$name"; done
change web '.mounts |= map(select(.destination | startswith("/dev") | not))
    | .process.args = ["true"]'
for destination in //dev /dev/. /./dev//; do
    cp "$work/web/config.json" "$work/nodev.json"
    change web ".mounts += [{destination: \"$destination\", type: \"bind\", source: \"$work/volume\", options: [\"bind\"]}]"
    run zncrun run --bundle "$work/web" "$me-web"
    expect "a bind at $destination" 0 ''
    cp "$work/nodev.json" "$work/web/config.json"
done
check 'the files of the volume are there' grep -qx mine "$work/volume/null" "$work/volume/zero"
change web ".mounts += [{destination: \"/data\", type: \"bind\", source: \"$work/volume\", options: [\"bind\"]}]"
rmdir "$work/web/rootfs/dev"
ln -s data "$work/web/rootfs/dev"
run zncrun run --bundle "$work/web" "$me-web"
refused 'a symbolic link at /dev' '/dev/null'
rm "$work/web/rootfs/dev"
mkdir "$work/web/rootfs/dev"
change web '.linux.devices = [{path: "/data/null", type: "c", major: 1, minor: 5, fileMode: 438}]'
run zncrun run --bundle "$work/web" "$me-web"
refused 'a device at the place of a file' '/data/null'
check 'the files are as they were' test "$(cat "$work"/volume/* | sort | uniq -c | tr -d ' ')" = 5mine
rm -rf "$work/web/rootfs/dev"
mkdir "$work/web/rootfs/dev"
plain_again

# What a container sees of zncrun when another one joins its PID namespace: never a process whose
# file is zncrun.
cp "$ZNCRUN" "$work/victim"
make_bundle watch sh -c 'echo up >/data/up; while [ ! -e /data/stop ]; do
    for p in /proc/[0-9]*; do l=$(readlink $p/exe) || continue; case $l in /bin/*) ;; *) echo "$l" >>/data/seen ;; esac
    done; done'
change watch '.process.capabilities = ({} | .bounding = ["CAP_SYS_PTRACE"] | .effective = .bounding | .permitted = .bounding)'
run zncrun run --detach --bundle "$work/watch" "$me-watch"
check 'a container watches' eventually test -e "$work/watch/rootfs/data/up"
change web '.linux.namespaces |= (map(select(.type != "pid")) + [{type: "pid", path: "/proc/'"$(state_of "$me-watch" .pid)"'/ns/pid"}])
    | .process.args = ["sh", "-c", "echo $$"]'
for _ in {1..25}; do run "$work/victim" --root "$work/state" run --bundle "$work/web" "$me-web"; done
check 'other containers join its PID namespace' test "$status" = 0 -a "${out:-1}" -gt 1
touch "$work/watch/rootfs/data/stop"
check 'the watching container ends' eventually is_state "$me-watch" stopped
check 'no process with the file of zncrun was visible' not grep -q victim "$work/watch/rootfs/data/seen"
check 'processes with the file of the helper were visible' grep -q 'memfd:zn-helper' "$work/watch/rootfs/data/seen"
run zncrun delete "$me-watch"
plain_again

# A hook that does not end.
change web '.hooks = {createRuntime: [{path: "/bin/sh", args: ["sh", "-c", "cat >/dev/null; echo $$ >$HELD; exec sleep 1000"]}]}'
HELD=$work/held "$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web" >/dev/null 2>&1 </dev/null &
runner=$!
check 'the hook runs' eventually test -s "$work/held"
pid=$(state_of "$me-web" .pid)
run timeout 30 "$ZNCRUN" --root "$work/state" delete --force "$me-web"
refused 'delete --force does not wait for the hook' 'another command'
check 'the container is killed' eventually not lives "$pid"
kill -TERM "$runner"
check 'run can be ended meanwhile' eventually not lives "$runner"
check 'and the hook ends with it' eventually not lives "$(<"$work/held")"
run zncrun delete --force "$me-web"
expect 'an interrupted run deletes the container' 0 ''
plain_again

# The names of the host.
host=$(hostname)
for members in '.hostname = "changed"' '.domainname = "changed" | del(.hostname)'; do
    change web "$members"' | .linux.namespaces |= map(select(.type != "uts"))'
    run zncrun create --bundle "$work/web" "$me-web"
    refused "$members without a UTS namespace" 'shares the uts namespace'
    change web '.linux.namespaces += [{type: "uts", path: "/proc/'$$'/ns/uts"}]'
    run zncrun create --bundle "$work/web" "$me-web"
    refused "$members in that of the host by its path" 'shares the uts namespace'
    plain_again
done
check 'the host keeps its name' test "$(hostname)" = "$host"

# Kernel parameters of the host.
for kind in network:net:net.ipv4.ip_default_ttl ipc:ipc:kernel.msgmax; do
    IFS=: read -r type file key <<<"$kind"
    before=$(sysctl -n "$key")
    change web '.linux.sysctl = {"'"$key"'": "99"} | .linux.namespaces |= map(select(.type != "'"$type"'")) |
        .linux.namespaces += [{type: "'"$type"'", path: "/proc/self/ns/'"$file"'"}]'
    run zncrun create --bundle "$work/web" "$me-web"
    refused "$key in the namespace of the host by its path" 'belongs to the host'
    check "$key is as it was" test "$(sysctl -n "$key")" = "$before"
    plain_again
done

# The directory of all states.
(umask 0 && zncrun --root "$work/deep/er" list >/dev/null && exec "$ZNCRUN" --root "$work/deep/er" create \
    --bundle "$work/web" "$me-web" >/dev/null 2>&1 </dev/null)
check 'the root of the states is for its owner only, whatever the umask' \
    test "$(stat -c %a "$work/deep" "$work/deep/er" | tr '\n' ' ')" = '700 700 '
chmod 777 "$work/deep/er"
run zncrun --root "$work/deep/er" state "$me-web"
refused 'a state directory that others can write to is refused' "$work/deep/er"
chmod 700 "$work/deep/er"
run zncrun --root "$work/deep/er" delete --force "$me-web"
expect 'the directory is used when others cannot write to it' 0 ''

# The directory of an ordinary user, and of the root of a user namespace.
mkdir -m 700 "$work/own"
chown 65534:65534 "$work/own"
chmod 755 "$work"
as_user() { setpriv --reuid 65534 --regid 65534 --clear-groups env XDG_RUNTIME_DIR="$work/own" "$@"; }
cp "$ZNCRUN" "$work/program"
run as_user timeout 20 "$work/program" create --bundle "$work/web" "$me-web"
check 'an ordinary user has a root directory of his own' test "$status" = 1 -a -d "$work/own/zncrun"
rmdir "$work/own/zncrun"
run as_user unshare -U --map-root-user timeout 20 "$work/program" list
check 'the root of a user namespace, too' grep -q "zncrun: $work/own/zncrun: " "$work/err"
run env XDG_RUNTIME_DIR="$work/own" timeout 20 "$work/program" list
check 'the root of the host has the same in any environment' not grep -q "$work/own" "$work/err"

# Files that others hold up: nobody reads the FIFO.
mkfifo "$work/fifo" "$work/pid.new"
ln -sf /dev/null "$work/null"
for log in "$work/fifo" /dev/null "$work/null" "$work"; do
    run timeout 20 "$ZNCRUN" --log "$log" --root "$work/state" state "$me-web"
    refused "a log at $log" "--log: $log: not a regular file"
done
for file in "$work/fifo" "$work/null" "$work"; do
    run timeout 20 "$ZNCRUN" --root "$work/state" create --pid-file "$file" --bundle "$work/web" "$me-web"
    refused "a pid file at $file" "--pid-file: $file: not a regular file"
done
check 'they are as they were' test -p "$work/fifo" -a "$(readlink "$work/null")" = /dev/null
run timeout 20 "$ZNCRUN" --root "$work/state" create --pid-file "$work/pid" --bundle "$work/web" "$me-web"
refused 'a FIFO at the temporary name of a pid file' "$work/pid"
check 'nothing is left of the container' test ! -e "$work/state/$me-web"
run zncrun run --detach --bundle "$work/web" "$me-web"
run timeout 20 "$ZNCRUN" --root "$work/state" exec --detach --pid-file "$work/fifo" "$me-web" sleep "$mark"
exec_refused 'a pid file of exec' "--pid-file: $work/fifo: not a regular file"
check 'its program was not started' not pgrep -f "sleep $mark"
run zncrun delete --force "$me-web"
rm "$work/fifo" "$work/pid.new"

# A container that does not answer.
run zncrun create --bundle "$work/web" "$me-web"
pid=$(state_of "$me-web" .pid)
kill -STOP "$pid"
for _ in {1..12}; do run timeout 10 "$ZNCRUN" --root "$work/state" state "$me-web"; done
check 'a stopped container that waits is looked at any number of times' test "$status" = 0
check 'the state of a stopped waiting container is created' is_state "$me-web" created
run zncrun list
check 'a stopped waiting container does not delay list' grep -q "$me-web .*created" "$work/out"
kill -CONT "$pid"
run zncrun pause "$me-web"
check 'a container that waits is paused' is_state "$me-web" paused
run zncrun start "$me-web"
refused 'a paused waiting container is not started' paused
run zncrun resume "$me-web"
check 'a resumed container waits again' is_state "$me-web" created
kill -STOP "$pid"
timeout 30 "$ZNCRUN" --root "$work/state" start "$me-web" >/dev/null 2>"$work/err" &
starter=$!
socket=$(readlink -f "$work/state/$me-web")/start
check 'a start waits for its answer' eventually test -e "$socket"
kill -KILL "$pid"
status=0
wait "$starter" || status=$?
check 'a start whose process is killed fails' test "$status" = 1
run zncrun delete --force "$me-web"

# A filter that kills the process before its program.
change web '.process.args = ["true"] | .linux.seccomp = {defaultAction: "SCMP_ACT_KILL_PROCESS", syscalls: [
    {names: ["execve", "exit_group", "brk", "write", "read", "close"], action: "SCMP_ACT_ALLOW"}]}'
run zncrun create --bundle "$work/web" "$me-web"
run zncrun start "$me-web"
refused 'the start of a program that was never executed' 'killed before'
run zncrun delete --force "$me-web"
plain_again
run zncrun run --detach --bundle "$work/web" "$me-web"
run zncrun exec --detach "$me-web" true
expect 'exec --detach' 0 ''

# A file at the place of the null device whose holder does not let go of it.
cat >"$work/lease.py" <<'P'
import fcntl, os, signal, sys
signal.signal(signal.SIGIO, signal.SIG_IGN)
fd = os.open(sys.argv[1], os.O_RDWR | os.O_CREAT)
fcntl.fcntl(fd, fcntl.F_SETLEASE, fcntl.F_WRLCK)
print("held", flush=True)
signal.pause()
P
root=/proc/$(state_of "$me-web" .pid)/root
rm "$root/dev/null"
timeout 120 python3 "$work/lease.py" "$root/dev/null" >"$work/lease" &
holder=$!
check 'the file is held' eventually grep -q held "$work/lease"
run timeout 10 "$ZNCRUN" --root "$work/state" exec "$me-web" true
expect 'exec does not wait for the holder of a file of the container' 0 ''
kill "$holder"
run zncrun delete --force "$me-web"

finish
