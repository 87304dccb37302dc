#!/usr/bin/env bash
# Tests of zncrun create, start, state, kill, delete, run, list and features.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"
loop='trap "exit 5" TERM; echo up; while :; do sleep 0.05; done'

# Global options and general failures.
run zncrun --version
check 'the version is in the form that engines read' grep -qx 'zncrun version [0-9.]*' <<<"$out"
for option in --log-format=xml --cgroup-manager=none --rootless=yes; do
    run zncrun "$option" list
    refused "$option" 'unknown word'
done
run zncrun --log "$work/log" --log-format json --debug --systemd-cgroup=false --rootless=false \
    --cgroup-manager cgroupfs state "$me-absent"
refused 'a container that does not exist' 'does not exist'
check 'the log has the error as a JSON line' \
    jq -e '.level == "error" and (.msg | contains("does not exist")) and (.time | length > 0)' "$work/log"
run zncrun delete --force "$me-absent"
expect 'force ignores a container that does not exist' 0 ''
run zncrun delete "$me-absent"
refused 'a missing container is an error without --force' 'does not exist'
for bad in .. . a/b 'a b' ''; do
    run zncrun state "$bad"
    check "the id \"$bad\" is refused" test "$status" = 1
done
run zncrun features
check 'features is JSON' jq -e '.linux.cgroup.v1 and (.linux.namespaces | index("pid"))' "$work/out"

# Without a control group.
make_bundle free true
free=$(<"$work/free/config.json")
change free '.linux.resources.devices = [{allow: false, access: "rwm"}]'
run zncrun --cgroup-manager=disabled run --bundle "$work/free" "$me-free"
expect 'run without a control group' 0 ''
program free sleep 1000
run zncrun --cgroup-manager disabled run --detach --bundle "$work/free" "$me-free"
check 'no control group is made' not group_exists "$me-free"
run zncrun exec "$me-free" true
expect 'exec without a control group' 0 ''
run zncrun ps "$me-free"
refused 'ps without a control group' 'has no control group'
run zncrun delete --force "$me-free"
expect 'delete without a control group' 0 ''
printf '%s' "$free" >"$work/free/config.json"
change free '.linux.resources.memory.limit = 1000000000'
run zncrun --cgroup-manager=disabled run --bundle "$work/free" "$me-free"
refused 'a limit without a control group' 'linux.resources.memory.limit: the container has no control group'

# A configuration to start from.
make_root "$work/new/rootfs"
run zncrun spec --bundle "$work/new"
expect 'spec writes a configuration' 0 ''
change new '.process.terminal = false'
program new sh -c 'echo $$; touch /x 2>/dev/null || echo read-only'
run zncrun run --bundle "$work/new" "$me-new"
expect 'its container has processes of its own and a read-only root' 0 $'1\nread-only'
run zncrun spec --bundle "$work/new"
refused 'spec does not replace a configuration' 'File exists'

# The program starts when it is told to.
make_bundle web sh -c "$loop"
mkfifo "$work/stdout"
timeout 60 cat "$work/stdout" >"$work/log" &
run zncrun create --bundle "$work/web" --pid-file "$work/pid" "$me-web"
exec 7<>"$work/stdout"
"$ZNCRUN" --root "$work/state" create --bundle "$work/web" --pid-file "$work/pid2" "$me-streams" \
    >&7 2>&1 </dev/null
expect 'create' 0 ''
pid=$(<"$work/pid")
check 'the state is created' is_state "$me-web" created
check 'the pid file names the process of the state' test "$(state_of "$me-web" .pid)" = "$pid"
check 'the process has not become the program' grep -q zn-init "/proc/$pid/comm"
check 'the process is the first of a PID namespace' grep -qE "^NSpid:.*\s1$" "/proc/$pid/status"
check 'the process is an orphan: its creator has ended' not grep -q "^PPid:\s$$\$" "/proc/$pid/status"
check 'annotations are part of the state' test "$(state_of "$me-web" .annotations)" = '{}'
run zncrun create --bundle "$work/web" "$me-web"
refused 'an id cannot be used twice' 'already exists'
check 'the first container lives on' is_state "$me-web" created
run zncrun start "$me-web"
check 'start' test "$status" = 0
check 'the state is running' is_state "$me-web" running
check 'the process is the same and is the program now' grep -q -a 'trap' "/proc/$pid/cmdline"
run zncrun start "$me-web"
refused 'a container cannot be started twice' 'already running'
run zncrun delete "$me-web"
refused 'a running container is not deleted' 'is not stopped'
run zncrun list
check 'list shows it' grep -q "$me-web .*running" "$work/out"

run zncrun start "$me-streams"
check 'the streams are those of create' eventually grep -q up "$work/log"
exec 7>&-
run zncrun kill --all "$me-streams" KILL
expect 'kill --all' 0 ''
check 'all processes of the container have ended' eventually is_state "$me-streams" stopped
run zncrun delete "$me-streams"
expect 'delete' 0 ''

# Signals.
run zncrun kill "$me-web" NOSUCH
refused 'an unknown signal' 'unknown signal'
run zncrun kill "$me-web" 0
expect 'signal 0 only looks' 0 ''
run zncrun kill "$me-web" SIGTERM
expect 'a signal by name' 0 ''
check 'the signal ends the program' eventually is_state "$me-web" stopped
check 'the process id of what has ended is 0' test "$(state_of "$me-web" .pid)" = 0
run zncrun kill "$me-web" 15
refused 'a stopped container gets no signals' 'not running'
run zncrun start "$me-web"
refused 'a stopped container is not started' 'stopped'
run zncrun delete "$me-web"
expect 'delete of a stopped container' 0 ''
run zncrun state "$me-web"
refused 'the deleted container does not exist' 'does not exist'

# The end of the first process ends all.
program web sh -c "sleep $mark & echo \$!; sleep 0.1"
run zncrun run --bundle "$work/web" "$me-web"
check 'run waits for the program and deletes the container' test "$status" = 0
check 'no process is left' not pgrep -f "sleep $mark"

# run passes statuses and signals on.
program web sh -c 'exit 42'
run zncrun run --bundle "$work/web" "$me-web"
expect 'run has the exit status of the program' 42 ''
program web sh -c 'kill -KILL 0; kill -9 1; exit 3'
run zncrun run --bundle "$work/web" "$me-web"
expect 'the first process survives signals from inside' 3 ''
program web sh -c "$loop"
rm -f "$work/log"
"$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web" >"$work/log" 2>&1 </dev/null &
runner=$!
check 'the program runs in the foreground' eventually grep -q up "$work/log"
kill -TERM "$runner"
wait "$runner"
check 'run forwards signals' test $? = 5

# What cannot run.
program web nosuch
run zncrun create --bundle "$work/web" "$me-web"
refused 'a missing program is found by create' 'exec: "nosuch": executable file not found in $PATH'
program web /bin/nosuch
run zncrun create --bundle "$work/web" "$me-web"
refused 'a missing path' 'no such file or directory'
program web /etc/passwd
run zncrun create --bundle "$work/web" "$me-web"
refused 'a file that is no program' 'permission denied'
cp "$work/web/rootfs/etc/passwd" "$work/web/rootfs/bin/text"
chmod 755 "$work/web/rootfs/bin/text"
program web /bin/text
run zncrun run --bundle "$work/web" "$me-web"
refused 'a file that is none for the kernel' 'exec format error'
program web true
change web '.process.cwd = "/etc/passwd"'
run zncrun create --bundle "$work/web" "$me-web"
refused 'a working directory that is a file' 'chdir to cwd ("/etc/passwd")'
change web '.process.cwd = "/made/for/it"'
program web pwd
run zncrun run --bundle "$work/web" "$me-web"
expect 'a missing working directory is created' 0 /made/for/it
mkdir -p "$work/web/rootfs/twice/twice"
change web '.process.cwd = "/twice"'
run zncrun run --bundle "$work/web" "$me-web"
expect 'a working directory that has a directory of the same path in it' 0 /twice
run zncrun create --bundle "$work/nosuch" "$me-web"
refused 'a missing bundle' 'no such file or directory'
for text in '{' '[]' '{"ociVersion":"9"}' '{"ociVersion":"1.0.0"}'; do
    mkdir -p "$work/broken"
    printf '%s' "$text" >"$work/broken/config.json"
    run zncrun create --bundle "$work/broken" "$me-web"
    check "the configuration $text is refused" test "$status" = 1
done
check 'nothing is left of refused containers' test -z "$(ls -A "$work/state")"

# A killed creator leaves no process, and force clears the rest. Hooks hold the creator at the point.
change web '.process.cwd = "/" | .hooks = {createRuntime: [{path: "/bin/sh",
    args: ["sh", "-c", "cat >/dev/null; touch $HELD; while test -e $HELD; do sleep 0.05; done"]}]}'
program web sleep 1000
HELD=$work/held "$ZNCRUN" --root "$work/state" create --bundle "$work/web" "$me-web" \
    >/dev/null 2>&1 </dev/null &
creator=$!
check 'the creator is held' eventually test -e "$work/held"
pid=$(state_of "$me-web" .pid)
kill -KILL "$creator"
wait "$creator" 2>/dev/null
rm "$work/held"
check 'when the creator is killed, the container ends' eventually not lives "$pid"
check 'the container is stopped after its creator was killed' eventually is_state "$me-web" stopped
check 'the control group of the killed create is left' group_exists "$me-web"
run zncrun delete --force "$me-web"
expect 'delete --force clears what is left' 0 ''
check 'delete --force removes the control group' not group_exists "$me-web"
mkdir -p "$work/state/$me-early"
run zncrun delete --force "$me-early"
expect 'also what a creator left that was killed at once' 0 ''

# Damaged states.
for text in '' '{"pid":4294967297,"startTime":1}' '{}'; do
    mkdir "$work/state/$me-damaged"
    printf '%s' "$text" >"$work/state/$me-damaged/state.json"
    run zncrun list
    expect "list with the state '$text'" 0 "$out"
    run zncrun state "$me-damaged"
    check "the state '$text' is no state" test "$status" = 1
    run zncrun delete --force "$me-damaged"
    expect "delete --force of the state '$text'" 0 ''
done
mkdir "$work/state/$me-damaged"
run zncrun state "$me-damaged"
refused 'a directory without a state' 'does not exist'
rmdir "$work/state/$me-damaged"

# Killed anywhere, it leaves nothing that force does not clear.
change web 'del(.hooks)'
left_by_killed_creators() {
    local i
    for i in {1..40}; do
        timeout -s KILL "0.0$((RANDOM % 90 + 10))" "$ZNCRUN" --root "$work/state" create \
            --bundle "$work/web" "$me-killed$i" >/dev/null 2>&1 </dev/null
        zncrun delete --force "$me-killed$i" || return 0
    done 2>/dev/null
    group_exists "$me-killed*" || compgen -G "$work/state/$me-killed*"
}
check 'creators that are killed at any time' not left_by_killed_creators

# Hooks.
change web '.hooks = {
    prestart: [{path: "/bin/sh", args: ["sh", "-c", "echo pre >>$LOG; cat >>$LOG"]}],
    poststart: [{path: "/bin/sh", args: ["sh", "-c", "echo post >>$LOG"]}],
    poststop: [{path: "/bin/sh", args: ["sh", "-c", "echo stop >>$LOG"], env: ["LOG='"$work"'/hooks"]}]}'
program web true
rm -f "$work/hooks"
LOG=$work/hooks run zncrun run --bundle "$work/web" "$me-web"
expect 'a container with hooks' 0 ''
check 'hooks run in their order' test "$(grep -o 'pre\|post$\|stop' "$work/hooks" | tr '\n' ' ')" = 'pre post stop '
check 'the hooks read the state' grep -q "\"id\":\"$me-web\"" "$work/hooks"
change web '.hooks = {prestart: [{path: "/bin/false"}]}'
run zncrun create --bundle "$work/web" "$me-web"
refused 'a prestart hook that fails' 'error running hook /bin/false (prestart)'
change web '.hooks = {prestart: [{path: "/bin/sleep", args: ["sleep", "100"], timeout: 1}]}'
run zncrun create --bundle "$work/web" "$me-web"
refused 'a hook that takes too long' 'longer than 1 seconds'
change web 'del(.hooks)'

# A process with the same number is not taken for the container's.
program web sleep 1000
run zncrun run --detach --bundle "$work/web" "$me-web"
expect 'run --detach' 0 ''
sleep 1000 &
other=$!
start_of() { awk '{ print $22 }' "/proc/$1/stat"; }
# The kernel counts starts in ticks: another process may have started in the same one.
while [[ $(start_of "$other") == $(start_of "$(state_of "$me-web" .pid)") ]]; do
    kill "$other"
    sleep 1000 &
    other=$!
done
jq ".pid = $other" "$work/state/$me-web/state.json" >"$work/changed.json"
pid=$(state_of "$me-web" .pid)
cp "$work/state/$me-web/state.json" "$work/kept.json"
cp "$work/changed.json" "$work/state/$me-web/state.json"
check 'another process with the noted id is not the container' is_state "$me-web" stopped
run zncrun kill "$me-web" KILL
refused 'another process with the id gets no signal' 'not running'
check 'the other process lives' lives "$other"
kill "$other"
cp "$work/kept.json" "$work/state/$me-web/state.json"
run zncrun delete --force "$me-web"
expect 'a running container is deleted by force' 0 ''
check 'the process of the deleted container has ended' not lives "$pid"
finish
