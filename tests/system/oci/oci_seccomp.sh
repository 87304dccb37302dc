#!/usr/bin/env bash
# Tests of seccomp filters whose calls another program decides about (SCMP_ACT_NOTIFY), and of calls that are newer
# than those that a profile names.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"

make_bundle web true
plain=$(<"$work/web/config.json")
socket=$work/agent.sock
states=$work/states
agents=()

errno() { python3 -c "import errno; print(errno.$1)"; }
# agent ANSWER [READ]: starts the program that decides. stop_agent: ends it.
agent() {
    rm -f "$socket" "$states"
    python3 "$(dirname "$0")/seccomp_agent.py" "$socket" "$states" "$@" 2>"$work/agent.err" &
    agents=("$!")
    eventually test -S "$socket"
}
stop_agent() {
    kill -KILL "${agents[@]}"
    wait "${agents[@]}" 2>/dev/null
    agents=()
}
in_sleep() { zncrun ps "$me-web" | grep -q 'sleep 1000'; }
state() { jq -r "$1" "$states"; }
# notify NAME...: a filter that asks about these calls, as a change of the configuration.
notify() {
    jq -nc --arg path "$socket" '.linux.seccomp = {defaultAction: "SCMP_ACT_ALLOW", listenerPath: $path,
        listenerMetadata: "told", syscalls: [{names: $ARGS.positional, action: "SCMP_ACT_NOTIFY"}]} | .linux.seccomp' \
        --args -- "$@" | sed 's/^/.linux.seccomp = /'
}
nnp='.process.noNewPrivileges = '
make='mkdir /tmp/d 2>&1 | grep -o "No medium found"'
dirs=(mkdir mkdirat)

for privileges in true false; do
    agent 123 # ENOMEDIUM
    given "$(notify "${dirs[@]}") | $nnp$privileges" sh -c "$make; grep Seccomp: /proc/self/status"
    expect "the agent answers a call of the program (noNewPrivileges $privileges)" 0 $'No medium found\nSeccomp:\t2'
    check 'it gets one state document' test "$(wc -l <"$states")" = 1
    check 'the document says what the descriptor is' test "$(state '.fds | tostring')" = '["seccompFd"]'
    check 'it contains the metadata' test "$(state .metadata)" = told
    check 'and the version' test "$(state '.ociVersion == .state.ociVersion')" = true
    check 'and the state of the container' test "$(state .state.id)" = "$me-web"
    check 'and its process' test "$(state '.pid > 1 and .pid == .state.pid')" = true
    check 'and where its bundle is' test "$(state .state.bundle)" = "$work/web"
    stop_agent
    agent continue
    given "$(notify execve openat open read close capset setresuid prctl) | $nnp$privileges" sh -c 'cat /etc/passwd | head -c 4'
    expect "calls that zncrun itself makes in the process (noNewPrivileges $privileges)" 0 root
    stop_agent
done

agent continue 7
given "$(notify "${dirs[@]}") | .linux.seccomp.listenerMetadata = (\"x\n\" * 40000)" sh -c 'mkdir /tmp/d && echo made'
expect 'an agent that reads slowly gets a long document' 0 made
check 'the whole document' test "$(state '.metadata | length')" = 80000
stop_agent

# With a user namespace, and without the rights of the host.
agent 123
chmod 755 "$work"
chown -R 100000:100000 "$work/web/rootfs"
given "$(notify "${dirs[@]}") | .linux.namespaces += [{type: \"user\"}]
    | .linux.uidMappings = [{containerID: 0, hostID: 100000, size: 1000}] | .linux.gidMappings = .linux.uidMappings" sh -c "$make"
expect 'in a user namespace' 0 'No medium found'
chown -R 0:0 "$work/web/rootfs"
given "$(notify "${dirs[@]}")" sh -c "$make"
run unshare --user --map-root-user --mount timeout -k 5 60 "$ZNCRUN" --root "$work/own" --cgroup-manager=disabled \
    run --bundle "$work/web" "$me-own"
expect 'as root of a user namespace' 0 'No medium found'
stop_agent

# With exec.
agent 123
make_bundle web sleep 1000
plain=$(<"$work/web/config.json")
for privileges in true false; do
    change web "$(notify "${dirs[@]}") | $nnp$privileges"
    run zncrun run --detach --bundle "$work/web" "$me-web"
    expect 'a container in the background' 0 ''
    run zncrun exec "$me-web" sh -c "$make"
    expect "exec with the filter of the container (noNewPrivileges $privileges)" 0 'No medium found'
    check 'the state of the container is that of a running one' test "$(jq -rs '.[-1].state.status' "$states")" = running
    check 'the process is that of exec' \
        test "$(jq -s '.[-1].pid != .[-1].state.pid and .[-1].pid > 1' "$states")" = true
    run zncrun exec --detach --pid-file "$work/pid" "$me-web" sleep 1000
    check 'the process id is that of the pid file' test "$(jq -s '.[-1].pid' "$states")" = "$(<"$work/pid")"
    [[ $privileges == false ]] || { run zncrun delete --force "$me-web"; printf '%s' "$plain" >"$work/web/config.json"; }
done
stop_agent
run zncrun exec "$me-web" true
exec_refused 'exec without the agent' "failed to connect with seccomp agent $socket: Connection refused"
check 'the process of exec has ended' test "$(zncrun ps --format json "$me-web" | jq length)" = 2
python3 - "$socket" <<'P' &
import os, socket, sys, time
os.unlink(sys.argv[1])
server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[1])
server.listen(0)
others = [socket.socket(socket.AF_UNIX) for _ in range(2)]
for other in others:
    other.setblocking(False)
    other.connect_ex(sys.argv[1])
open(sys.argv[1] + ".full", "w").close()
time.sleep(60)
P
agents=("$!")
eventually test -e "$socket.full"
run zncrun exec "$me-web" true
exec_refused 'exec with an agent that accepts no connections' "failed to connect with seccomp agent $socket: Connection timed out"
stop_agent
rm -f "$socket"
run zncrun delete --force "$me-web"
make_bundle web true
plain=$(<"$work/web/config.json")

# The agent is not there, or ends.
given "$(notify "${dirs[@]}")" true
refused 'no agent' "failed to connect with seccomp agent $socket: No such file"
given "$(notify read)" true
refused 'no agent for a call that the process makes meanwhile' "failed to connect with seccomp agent $socket"
agent silent
printf '%s' "$plain" >"$work/web/config.json"
change web "$(notify "${dirs[@]}")"
program web sh -c 'mkdir /tmp/d; echo $?; exec sleep 1000'
run zncrun create --bundle "$work/web" "$me-web"
zncrun start "$me-web"
eventually test -s "$states"
stop_agent
eventually in_sleep
check 'when the agent has ended, calls fail and the program continues' in_sleep
run zncrun delete --force "$me-web"
agent silent
change web "$(notify execve)"
run zncrun create --bundle "$work/web" "$me-web"
timeout 60 "$ZNCRUN" --root "$work/state" start "$me-web" >"$work/start.out" 2>&1 &
starting=$!
eventually test -s "$states"
check 'start waits for an answer of the agent' kill -0 "$starting"
stop_agent
wait "$starting"
check 'and fails when the agent ends' grep -q 'unction not implemented' "$work/start.out"
run zncrun delete --force "$me-web"

# Hooks of the container have a filter and listener of their own.
agent 123
given "$(notify "${dirs[@]}") | .hooks.startContainer = [{path: \"/bin/sh\", args: [\"sh\", \"-c\",
    \"mkdir /tmp/d 2>&1 | grep -o 'No medium found'; ls /proc/self/fd\"], env: [\"PATH=/bin\"]}]" true
check 'a startContainer hook under the filter' test "$status/$err" = $'0/No medium found\n0\n1\n2\n3'
check 'the agent gets a listener of the hook and one of the program' test "$(wc -l <"$states")" = 2
stop_agent

# What does not make sense.
given "$(notify write)" true
refused 'the call by which a process reports the listener' \
    'linux.seccomp.syscalls[0].action: SCMP_ACT_NOTIFY cannot be used for the write syscall'
given "$(notify mkdir) | .linux.seccomp.defaultAction = \"SCMP_ACT_NOTIFY\"" true
refused 'as default action' 'linux.seccomp.defaultAction: SCMP_ACT_NOTIFY cannot be the default action'
given "$(notify mkdir) | del(.linux.seccomp.listenerMetadata) | .linux.seccomp.listenerPath = \"\"" true
refused 'without a path' 'linux.seccomp.listenerPath: SCMP_ACT_NOTIFY needs it'
given "$(notify mkdir) | .linux.seccomp.listenerPath = \"@abstract\"" true
refused 'a path that is not absolute' 'linux.seccomp.listenerPath: not an absolute path'
given "$(notify mkdir) | del(.linux.seccomp.listenerPath)" true
refused 'metadata without a path' 'linux.seccomp.listenerMetadata: needs listenerPath'
given "$(notify mkdir) | del(.linux.seccomp.syscalls)" sh -c 'mkdir /tmp/ignored && echo made'
expect 'a path is ignored if no rule needs it' 0 made
given "$(notify mkdir) | .linux.seccomp.flags = [\"SECCOMP_FILTER_FLAG_TSYNC\"]" true
refused 'flags do not change who gets the listener' 'failed to connect with seccomp agent'
given '.linux.seccomp = {defaultAction: "SCMP_ACT_ALLOW", flags: ["SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV"]}' true
refused 'a flag for listeners only' 'linux.seccomp.flags[0]: needs a rule with SCMP_ACT_NOTIFY'

# Calls that are newer than all that a profile names.
cp "$NEWER_CALL" "$work/web/rootfs/bin/newer"
given '.linux.seccomp = {defaultAction: "SCMP_ACT_ERRNO", syscalls: [{names: ["read", "write", "execve", "exit", "exit_group",
    "openat2", "fcntl", "close", "dup3", "prctl", "capset", "setresuid", "setresgid", "setgroups", "rt_sigaction",
    "rt_sigprocmask", "fchdir", "getcwd", "brk", "arch_prctl", "set_tid_address", "set_robust_list", "rseq", "readlink",
    "readlinkat", "prlimit64", "mprotect", "getrandom", "newfstatat", "uname", "mmap", "munmap"], action: "SCMP_ACT_ALLOW"}]}' newer
expect 'a newer call fails with ENOSYS, an older one with EPERM' 0 "newer: $(errno ENOSYS), older: $(errno EPERM)"

finish
