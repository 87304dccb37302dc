#!/usr/bin/env bash
# Tests of zncctl run, and of detached containers with a monitor.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
start_daemon

no_containers() { [[ -z $(zncctl list -q) ]]; }
no_records() { [[ -z $(ls -A /run/zarnel/containers) ]]; }
field() { zncctl list | awk -v id="$1" -v column="$2" '$1 == id { print $column }'; }
status_is() { [[ $(field "$1" 2) == "$2" ]]; }
# Lists processes of zncctl that this test has started and that are still running.
no_monitor() {
    local proc
    for proc in /proc/[0-9]*; do
        [[ $(cat "$proc/comm" 2>/dev/null) == zncctl ]] || continue
        grep -qz "^ZNC_BASE=$ZNC_BASE\$" "$proc/environ" 2>/dev/null && return 1
    done
    return 0
}

make_bundle "$work/hello" /bin/sh -c 'echo hello; echo wrong >&2; exit 7'
run zncctl run --rm -b "$work/hello"
expect 'run passes on output and exit status' 7 hello wrong
check 'run deletes the container' no_containers
check 'run deletes the record of the container' no_records
run zncctl run --name kept --keep -b "$work/hello"
expect 'run --keep' 7 hello wrong
run zncctl list -f json --status stopped
check 'keeps the container with its exit code' python3 -c '
import json, re, sys
[state] = json.load(open(sys.argv[1]))
assert state["id"] == "kept" and state["exitCode"] == 7, state
assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", state["exited"]), state' "$work/out"
run zncctl logs kept
check 'and a log of both streams' test "$status/$(sort "$work/out" | tr '\n' ' ')" = '0/hello wrong '
run zncctl run --rm --name kept -b "$work/hello"
check 'an id that is taken exits 125' test "$status/$out/$(error_line)" = \
    '125//kept: Container already exists'
check 'the existing container is not changed' status_is kept stopped
zncctl delete -q kept

# shellcheck disable=SC2016
make_bundle "$work/counts" /bin/sh -c \
    "trap 'echo more' USR1; "'i=0; while [ $i -lt 300 ]; do echo $i; i=$((i+1)); echo $i >&2; i=$((i+1)); done; '\
'while :; do sleep 0.05; done'
"$ZNCCTL" run --name counts -b "$work/counts" >"$work/counted" 2>&1 </dev/null &
runner=$!
all_logged() { [[ $(zncctl logs counts) == "$(seq 0 299)" ]]; }
check 'the log of a program in the foreground can be read while it runs' eventually all_logged
check 'its output is as without one' test "$(<"$work/counted")" = "$(seq 0 299)"
zncctl attach --no-stdin counts >"$work/attached" 2>&1 </dev/null &
attached=$!
prints_more() { zncctl kill -q -s USR1 counts && grep -q more "$work/attached"; }
check 'attach passes on what is printed from now on' eventually prints_more
zncctl kill -q -s KILL counts
wait $runner
check 'its status is passed on' test $? = 137
wait $attached
check 'also to whoever is attached' test $? = 137
run zncctl logs -n 1 counts
expect 'and the log stays until the container is deleted' 0 more ''
zncctl delete -q --force counts # the shell's last sleep may still be there
make_bundle "$work/long" /bin/sh -c '/bin/busybox seq 1000000'
check 'a long output is passed on whole' \
    test "$("$ZNCCTL" run --name long --log-max 4096 -b "$work/long" </dev/null | sha256sum)" = "$(seq 1000000 | sha256sum)"
run zncctl logs long
check 'and the log keeps the end of it' test "$(tail -n 1 "$work/out")/$((${#out} <= 8192))" = 1000000/1
zncctl delete -q long

make_bundle "$work/signalled" /bin/sh -c 'kill -9 $$'
run zncctl run --rm -b "$work/signalled"
expect 'a program that a signal ended exits 128 plus its number' 137 '' ''
make_bundle "$work/none" /bin/no-such-program
run zncctl run --rm --name none -b "$work/none"
fails_with 'a program that is not there exits 127' 127 \
    "/bin/no-such-program: there is no such program in the container's root"
make_bundle "$work/text" /tmp/text
echo text >"$work/text/rootfs/tmp/text"
run zncctl run --rm -b "$work/text"
fails_with 'a program without the right to be executed exits 126' 126 '/tmp/text: it is not executable'
make_bundle "$work/dir" /tmp
run zncctl run --rm -b "$work/dir"
fails_with 'a directory as a program exits 126' 126 '/tmp: it is not a regular file'
printf '#!/no/such/interpreter\n' >"$work/text/rootfs/tmp/text"
chmod +x "$work/text/rootfs/tmp/text"
run zncctl run --rm -b "$work/text"
fails_with 'a program without its interpreter exits 126' 126 \
    '/tmp/text: it cannot be executed: its interpreter or a library may be missing, its format unknown, the user not allowed to, or a resource limit too low'
make_bundle "$work/path" there
mkdir "$work/path/rootfs/opt"
jq '.process.env=["PATH=/sbin:/opt"]' "$work/path/config.json" >"$work/config.json"
mv "$work/config.json" "$work/path/config.json"
run zncctl run --rm -b "$work/path"
fails_with 'a program that is not in the PATH exits 127' 127 "there: there is no such program in the container's PATH"
echo text >"$work/path/rootfs/opt/there"
run zncctl run --rm -b "$work/path"
fails_with 'one in the PATH that cannot be executed exits 126' 126 '/opt/there: it is not executable'
run zncctl run --rm -b /no/such/bundle
check 'a bundle that is not there exits 125' test "$status/$out" = 125/
run zncctl run --name none -d -b "$work/none"
check 'a detached run fails in the same way' test "$status/$out" = 127/
check 'failures leave no container' no_containers
check 'failures leave no record' no_records
for words in '' '-b /x --name' '--restart always -b /x' '--log-max 3 -b /x' '--log-max x -b /x'; do
    # shellcheck disable=SC2086
    run zncctl run $words
    check "run $words is a usage error" test "$status/$out" = 64/
done
run zncctl run --rm -it -b "$work/hello"
fails_with '--tty without a terminal exits 125' 125 \
    '--tty with --interactive needs a terminal on standard input'

# A detached program does not keep the caller's descriptors open: the command substitution returns although
# the program is still running.
make_bundle "$work/loop" /bin/sh -c "echo begin; exec sleep $mark"
out=$(zncctl run --name web -d -b "$work/loop" 2>&1)
check 'run --detach prints the id and lets go of the output' test "$out" = web
check 'the detached program runs' eventually program_lives
# logged ID TEXT: waits until the text is in the log: output appears there when the monitor has read it.
logged() { zncctl logs "$1" 2>/dev/null | grep -q "$2"; }
eventually logged web begin
run zncctl logs web
expect 'the output of the detached program is in the log' 0 begin ''
run zncctl list
check 'a running program has no exit code' test "$(field web 2)/$(field web 3)" = running/-
run zncctl top web
check 'top lists its process' grep -q " sleep $mark\$" "$work/out"
check 'top lists no other process' test "$(wc -l <"$work/out")" = 2
run zncctl top -f json web
check 'top in JSON lists the process' python3 -c \
    'import json, sys; [p] = json.load(open(sys.argv[1])); assert p["containerPid"] == 2, p' "$work/out"
run zncctl wait --timeout 0 web
fails_with 'wait gives up after its time' 4 'timed out: it has not ended'
run zncctl start web
fails_with 'it cannot be started again' 3 'Container in use'
run zncctl logs web
expect 'a second attach does not change the log' 0 begin ''
"$ZNCCTL" wait web >"$work/waited" &
waiter=$!
run zncctl stop web
expect 'stop prints the id' 0 web ''
wait $waiter
check 'wait prints the exit code' test "$?/$(<"$work/waited")" = 0/143
run zncctl list
check 'the list shows it' test "$(field web 2)/$(field web 3)" = stopped/143
run zncctl wait web
expect 'the exit code can be printed again' 0 143 ''
run zncctl stop web
expect 'stopping it again does nothing' 0 web ''
run zncctl attach web
check 'attach to what has ended exits 125' test "$status/$out" = 125/
run zncctl top web
fails_with 'top of a container that is not running exits 3' 3 'it is not running'
check 'no monitor stays' eventually no_monitor
zncctl delete -q web
for command in logs wait attach top stop; do
    run zncctl $command web
    wanted=2
    [[ $command == attach ]] && wanted=125
    fails_with "$command of a container that is not there exits $wanted" $wanted \
        'Container does not exist'
done

make_bundle "$work/stubborn" /bin/sh -c "trap '' TERM; echo ready; sleep $mark & wait; sleep $mark"
zncctl create stubborn "$work/stubborn"
zncctl start stubborn
eventually logged stubborn ready
run zncctl stop -t 0 stubborn
expect 'stop kills what TERM does not end' 0 stubborn ''
check 'stop kills all processes of the container' not program_lives
run zncctl wait stubborn
expect 'wait prints the exit code of KILL' 0 137 ''
run zncctl stop -t soon stubborn
check 'an invalid time is a usage error' test "$status/$out" = 64/
run zncctl wait --timeout soon stubborn
check 'an invalid time is a usage error of wait' test "$status/$out" = 64/

zncctl create one "$work/loop"
zncctl create two "$work/loop"
run zncctl start one two
expect 'several can be started' 0 '' ''
run zncctl kill -s STOP one two
expect 'kill prints a line for each' 0 $'one\ntwo' ''
run zncctl kill -q -s CONT one nosuch two
check 'one failure of several ids is reported' test "$status/$out/$(error_line)" = \
    '2//nosuch: Container does not exist'
run zncctl delete stubborn one
check 'failures of one kind give their exit status' test "$status/$out/$(error_line)" = \
    '3/stubborn/one: Container in use'
run zncctl delete nosuch one
check 'failures of several kinds exit with 1' test "$status/$out" = 1/
run zncctl list -q --status running
expect 'the list can be filtered by status' 0 $'one\ntwo' ''
run zncctl list -q --bundle "$work/hello"
expect 'the list can be filtered by bundle' 0 '' ''
run zncctl list --status odd
check 'an unknown status is a usage error' test "$status/$out" = 64/
run zncctl stop -q one
run zncctl delete --all-stopped
expect 'delete --all-stopped deletes those' 0 one ''
run zncctl delete --all-stopped two
check '--all-stopped with ids is a usage error' test "$status/$out" = 64/
run zncctl delete -f two
expect 'delete --force a detached one' 0 two ''
check 'the monitor ends with its container' eventually no_monitor
check 'records go with containers' no_records

# attach: output from now on, signals, the exit status.
make_bundle "$work/traps" /bin/sh -c \
    "trap 'echo term; exit 5' TERM; echo ready; while :; do sleep 0.05; done"
zncctl run --name trap -d -b "$work/traps" >/dev/null
eventually logged trap ready
"$ZNCCTL" attach trap >"$work/attached" 2>&1 &
attacher=$!
"$ZNCCTL" logs -f trap >"$work/followed" 2>&1 &
follower=$!
# The shell's child blocks signals, too, until it has become zncctl.
hands_on_signals() {
    [ "/proc/$attacher/exe" -ef "$ZNCCTL" ] && grep -q '^SigBlk:.*[1-9a-f]' "/proc/$attacher/status"
}
eventually hands_on_signals
kill -s TERM $attacher
wait $attacher
check 'attach hands on signals and ends as the program does' test "$?/$(<"$work/attached")" = 5/term
wait $follower
check 'logs --follow ends with it' test "$?/$(<"$work/followed")" = $'0/ready\nterm'
run zncctl logs --tail 1 trap
expect 'logs --tail gives the last lines' 0 term ''
run zncctl logs --tail 0 trap
expect 'logs --tail 0 prints nothing' 0 '' ''
run zncctl logs --tail 9 trap
expect 'logs --tail prints all lines if there are fewer' 0 $'ready\nterm' ''
run zncctl logs --tail x trap
check 'an invalid number of lines is a usage error' test "$status/$out" = 64/
run zncctl logs --tail all trap
expect 'logs --tail all prints all lines' 0 $'ready\nterm' ''
stamp='[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{9}Z'
run zncctl logs -t -n 1 trap
check 'logs --timestamps says when a line was written' grep -Eqx "$stamp term" "$work/out"
check 'the time of a log line is correct' test $(($(date +%s) - $(date -d "${out%% *}" +%s))) -lt 60
run zncctl logs --since 10m trap
expect 'logs --since takes a duration' 0 $'ready\nterm' ''
run zncctl logs --since "$(date -u -d '+1 hour' +%FT%TZ)" trap
expect 'logs --since takes a point in time' 0 '' ''
for time in soon '' 10x 1h2 2026-13-01T00:00:00Z; do
    run zncctl logs --since "$time" trap
    check "since '$time' is a usage error" test "$status/$out" = 64/
done
zncctl delete -q trap

# The log of a program that has ended is complete.
make_bundle "$work/once" /bin/echo once
complete() {
    local i
    for i in {1..20}; do
        zncctl run -d --name "once$i" -b "$work/once" >/dev/null
        until [[ $(zncctl list --status stopped -q) == *"once$i"* ]]; do :; done
        [[ $(zncctl logs "once$i") == once ]] || return
        zncctl delete -q "once$i"
    done
}
check 'the log is complete as soon as the container is stopped' complete

# 6,000 lines of 10 bytes in a log of 8 KiB: the log contains the end of the output but not the beginning.
# shellcheck disable=SC2016
make_bundle "$work/talks" /bin/sh -c 'i=100000; while [ $i -lt 106000 ]; do echo l $i.; i=$((i+1)); done'
zncctl run --name talks -d --log-max 8192 -b "$work/talks" >/dev/null
run zncctl wait talks
expect 'a program that prints a lot ends' 0 0 ''
run zncctl logs talks
check 'the log ends with the last line' test "${out##*$'\n'}" = 'l 105999.'
check 'the size of the log is limited' test "${#out}" -le 16384
check 'one rotated log is kept' test "${#out}" -gt 8192
check 'nothing is missing in between' python3 -c '
import sys
lines = open(sys.argv[1]).read().split("\n")[1:-1]
numbers = [int(line[2:-1]) for line in lines]
assert numbers == list(range(numbers[0], 106000))' "$work/out"
run zncctl logs -t talks
check 'the times of log lines are in order' python3 -c '
import sys
lines = open(sys.argv[1]).read().split("\n")[1:-1]
assert lines == sorted(lines) and lines[-1].endswith(" l 105999."), lines[-1]
assert all(" l " in line for line in lines[1:])' "$work/out"
zncctl delete -q talks

# A process that the program leaves behind keeps the output open, but does not delay the exit code.
make_bundle "$work/leaves" /bin/sh -c "(sleep $mark; echo late) & exit 3"
zncctl run --name leaves -d -b "$work/leaves" >/dev/null
run zncctl wait leaves
expect 'the exit code does not wait for what the program leaves behind' 0 3 ''
zncctl delete -qf leaves
check 'delete --force ends the processes left behind' eventually not program_lives

# If the monitor is killed, only the exit code is lost.
zncctl run --name web -d -b "$work/loop" >/dev/null
eventually program_lives
eventually status_is web running
kill -s KILL "$(sed -n 's/.*"keeper": \([0-9]*\).*/\1/p' /run/zarnel/containers/web/status.json)"
check 'a program outlives its monitor' status_is web running
run zncctl stop -q web
run zncctl wait web
fails_with 'its exit code is then not known' 1 \
    'its exit code is unknown: the process that started it did not wait for it'
check 'ps does not take it for success' test "$(zncctl ps -aq --filter exited=0)/$(zncctl ps -a --format \
    '{{.ID}} {{.Status}} {{.ExitCode}}')/$(zncctl ps -a --format json | jq '.[0].ExitCode')" = '/web Exited /null'
run zncctl start web
check 'start of an ended container explains why it fails' test "$status/$(sed -n 2p "$work/err")" = "3/zncctl: hint: a container \
that has ended cannot be started again: delete it and create it anew"
run zncctl delete web
expect 'the ended container can be deleted' 0 web ''

# Two interrupts in a row.
make_bundle "$work/deaf" /bin/sh -c "trap '' INT TERM; echo ready; sleep $mark & wait; wait; wait"
"$ZNCCTL" run --rm --name deaf -b "$work/deaf" >"$work/deaf.out" 2>"$work/hints" &
runner=$!
eventually grep -q ready "$work/deaf.out"
eventually status_is deaf running
sent() { kill -s INT "$runner" && sleep 0.1 && grep -q "kills it" "$work/hints"; }
check 'a second interrupt prints how to end by force' eventually sent
check 'the message shows the command' grep -qx \
    "zncctl: hint: deaf is still running; 'zncctl kill -s KILL deaf' kills it" "$work/hints"
zncctl kill -q --all -s KILL deaf
wait $runner
check 'the command of the message works' test $? = 137

check 'nothing is written elsewhere' test -z "$(find / /run /tmp -xdev -newer "$work/hello/config.json" \
    -type f -not -path "$work/*" -not -path '/run/zarnel/*')"
check 'no container is left' no_containers
check 'no record is left' no_records
check 'no monitor is left' eventually no_monitor
stop_daemon
run zncctl run --rm -b "$work/hello"
fails_with 'without a daemon run exits 125' 125 'The daemon is not running'
check 'the hint shows how to start the daemon' grep -q "^zncctl: hint: start it as root, with 'zncd &'" \
    "$work/err"
finish
