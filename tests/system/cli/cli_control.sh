#!/usr/bin/env bash
# Tests of zncctl pause, resume, update, stats and top.
# shellcheck source=cli_lib.sh disable=SC2317,SC2016
. "$(dirname "$0")/cli_lib.sh"
need busybox
need python3
start_daemon

field() { zncctl list | awk -v id="$1" -v column="$2" '$1 == id { print $column }'; }
status_is() { [[ $(field "$1" 2) == "$2" ]]; }
logged() { zncctl logs "$1" 2>/dev/null | grep -q "$2"; }
lines() { zncctl logs "$1" | wc -l; }
grows() { [[ $(lines "$1") -gt $2 ]]; }

# json PROGRAM: checks the output of the last run, a JSON document on each line, in `docs`.
json() {
    python3 -c "import json, sys
docs = [json.loads(line) for line in open(sys.argv[1])]
$1" "$work/out"
}

make_bundle "$work/loop" /bin/sh -c \
    "trap 'echo term; exit 5' TERM; echo ready; while :; do echo tick; sleep 0.05; done"
ln -sf busybox "$work/loop/rootfs/bin/dd"
zncctl run --name web -d -b "$work/loop" >/dev/null
eventually logged web ready

# Without control groups nothing of this is possible, and the commands say so.
run zncctl pause web
if [[ $err == *'no control groups'* ]]; then
    check 'without control groups pause fails with a message' test "$status/$out" = 1/
    run zncctl stats --no-stream web
    fails_with 'and stats' 1 'this machine has no cgroups, which are needed to measure usage'
    run zncctl exec web echo works
    expect 'exec works without them' 0 works ''
    printf 'skipped: this machine has no control groups\n'
    zncctl delete -q -f web
    finish
fi
expect 'pause prints the id' 0 web ''

# A paused container.
check 'a paused container is listed as paused' status_is web paused
run zncctl list -f json
check 'JSON lists it as paused and the daemon state as running' json \
    'assert docs[0][0]["paused"] is True and docs[0][0]["status"] == 2, docs'
run zncctl list -q --status paused
expect 'the list can be filtered for it' 0 web ''
run zncctl list -q --status running
expect 'a paused container is not listed as running' 0 '' ''
run zncctl inspect web
check 'inspect says it' python3 -c \
    'import json, sys; s = json.load(open(sys.argv[1]))[0]["State"]; assert s["Paused"] and s["Running"], s' "$work/out"
run zncctl state web
check 'state shows that it is paused' grep -q '"paused": true' "$work/out"
before=$(lines web)
run zncctl pause web
fails_with 'it cannot be paused twice' 3 'it is paused already'
run timeout 60 "$ZNCCTL" exec web echo
fails_with 'exec is refused' 3 'it is paused'
run timeout 60 "$ZNCCTL" exec -d web echo
fails_with 'also detached' 3 'it is paused'
run zncctl top web
check 'top lists its processes' grep -q 'echo tick' "$work/out"
check 'a paused container writes no output' test "$(lines web)" = "$before"
run zncctl resume web
expect 'resume prints the id' 0 web ''
check 'a resumed container is running' status_is web running
check 'its processes continue after resume' eventually grows web "$before"
run zncctl inspect web
check 'inspect says it' grep -q '"Paused": false' "$work/out"
run zncctl unpause web
fails_with 'it cannot be resumed twice' 3 'it is not paused'

# Signals.
run zncctl pause -q web
run zncctl kill -q -s TERM web
expect 'a signal to a paused container is accepted' 0 '' ''
check 'a signal does not resume a paused container' status_is web paused
run zncctl resume -q web
check 'the signal is delivered after resume' eventually status_is web stopped
check 'the exit code after the signal is listed' test "$(field web 3)" = 5
for command in pause resume; do
    run zncctl $command web
    fails_with "$command of a stopped container exits 3" 3 'it is not running'
    run zncctl $command nosuch
    fails_with "$command of one that does not exist exits 2" 2 'Container does not exist'
    run zncctl $command
    check "$command without an id is a usage error" test "$status/$out" = 64/
done
zncctl delete -q web

paused() {
    zncctl run --name "$1" -d -b "$work/loop" >/dev/null
    eventually logged "$1" ready
    zncctl pause -q "$1"
}
paused web
run timeout 60 "$ZNCCTL" kill -s KILL web
expect 'KILL ends a paused container' 0 web ''
check 'KILL ends a paused container at once' eventually status_is web stopped
check 'its exit code is that of KILL' test "$(field web 3)" = 137
zncctl delete -q web
paused web
run timeout 60 "$ZNCCTL" stop web
expect 'stop resumes a paused container' 0 web ''
check 'the program handles the signal of stop after resume' test "$(field web 3)" = 5
zncctl delete -q web
paused web
run zncctl delete web
fails_with 'a paused container is not deleted' 3 'Container in use'
run timeout 60 "$ZNCCTL" delete -f web
expect 'delete --force deletes a paused container' 0 web ''
paused one
paused two
run timeout 60 "$ZNCCTL" resume one nosuch two
check 'one failure of several ids is reported' test "$status/$out/$(error_line)" = \
    $'2/one\ntwo/nosuch: Container does not exist'
zncctl pause -q one
stop_daemon
check 'the daemon ends with a paused container' test "$status" = 0
start_daemon
check 'no container is left after the daemon ended' test -z "$(zncctl list -q)"

# Limits.
zncctl run --name web -d -b "$work/loop" >/dev/null
eventually logged web ready
run zncctl update -m 64m --pids-limit 20 web
expect 'update prints the id' 0 web ''
run zncctl stats --no-stream -f json web
check 'stats shows the new limits' json '
[[s]] = docs
assert s["id"] == "web" and s["running"] and s["memoryLimit"] == 64 << 20 and s["pidsLimit"] == 20, s
assert s["pids"] >= 1 and s["memory"] > 0 and s["cpuNs"] > 0 and s["cpuPercent"] >= 0, s'
run zncctl exec web sh -c 'for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21; do sleep 30 & done; wait'
check 'the number of processes is limited' grep -q "can't fork" "$work/err"
run zncctl update --pids-limit -1 --cpus 0.5 --cpu-shares 512 --cpuset-cpus 0 web
expect 'several limits at once, also none' 0 web ''
run zncctl stats --no-stream -f json web
check 'limits that are not given do not change' json '
[[s]] = docs
assert s["memoryLimit"] == 64 << 20 and s["pidsLimit"] is None, s'
run zncctl update --cpuset-cpus 99999 web
check 'a refused value is named with the reason' test "$status/$out" = 1/
check 'a refused limit is named by its member' grep -q 'cpu' "$work/err"
for words in 'web' '-m web' '-m 1x web' '--cpus 0 web' '--pids-limit many web' '--cpu-shares=-1 web' '-m 1g'; do
    # shellcheck disable=SC2086
    run zncctl update $words
    check "update $words is a usage error" test "$status/$out" = 64/
done
run zncctl update -m 1g nosuch
fails_with 'update of a container that does not exist exits 2' 2 'Container does not exist'
zncctl create made "$work/loop"
run zncctl update -q -m 32m made
expect 'a created container can be updated' 0 '' ''

# Use.
run zncctl stats --no-stream
check 'stats shows what runs' test "$(awk '{ print $1 }' "$work/out" | tr '\n' ' ')" = 'ID web '
check 'stats shows memory usage and limit' grep -qE '^web +[0-9.]+% +[0-9.]+[KMG]?i?B / 64.0MiB +[0-9.]+% +[0-9]+ +' "$work/out"
run zncctl stats --no-stream --all
check '--all shows all' test "$(awk '{ print $1, $2 }' "$work/out" | tail -n +2 | tr '\n' ' ' | grep -c 'made --')" = 1
run zncctl stats --no-stream made
check 'stats ID shows a container that does not run' grep -q '^made  *--' "$work/out"
run zncctl stats --no-stream -f json made
check 'stats in JSON has no values for it' json 'assert docs == [[{"id": "made", "running": False}]], docs'
zncctl exec -d web sh -c 'while :; do :; done'
run zncctl stats --no-stream -f json web
check 'processor time is counted' json 'assert docs[0][0]["cpuPercent"] > 0, docs'
"$ZNCCTL" stats -f json web >"$work/out" 2>"$work/err" </dev/null &
stats=$!
samples() { [[ $(wc -l <"$work/out") -ge $1 ]]; }
check 'stats goes on' eventually samples 2
kill -TERM $stats
wait $stats
check 'stats continues until it is ended' test "$?" = 143
check 'a document for each sample' json 'assert len(docs) >= 2 and all(d[0]["id"] == "web" for d in docs), docs'
run timeout 60 sh -c "'$ZNCCTL' stats web | head -n 1"
check 'a closed output ends it' test "$status" = 0
run zncctl stats --no-stream nosuch
fails_with 'a container that does not exist exits 2' 2 'Container does not exist'
run zncctl stats --all web
check 'ids with --all are a usage error' test "$status/$out" = 64/

# A program that needs more memory than it may have.
make_bundle "$work/big" /bin/sh -c 'dd if=/dev/zero of=/dev/null bs=200M count=1; echo survived'
jq '.linux={"resources":{"memory":{"limit":16777216,"swap":16777216}}} | .process.args=["/bin/dd","if=/dev/zero","of=/dev/null","bs=200M","count=1"]' \
    "$work/big/config.json" >"$work/big.json" && mv "$work/big.json" "$work/big/config.json"
ln -sf busybox "$work/big/rootfs/bin/dd"
run zncctl run --name big --keep -b "$work/big"
check 'a program above its memory limit is killed' test "$status" = 137
run zncctl wait big
check 'wait says that the limit was the reason' test "$status/$out/$err" = \
    '0/137/zncctl: hint: big was killed because its memory limit was reached'
check 'list marks the exit code with OOM' test "$(field big 3)" = '137(OOM)'
run zncctl list -f json
check 'list in JSON has oomKilled' json 'assert [c for c in docs[0] if c["id"] == "big"][0]["oomKilled"] is True, docs'
run zncctl delete -q big
zncctl run --name ends --keep -b "$work/loop" >/dev/null 2>&1 &
run_ends=$!
# A container is running before the daemon knows its process, which can be signalled only then.
eventually status_is ends running
eventually zncctl kill -q -s KILL ends 2>/dev/null
wait "$run_ends"
check 'a program that is killed otherwise is not' test "$(field ends 3)" = 137
zncctl delete -q ends

# Processes.
has_process() { zncctl top "$1" | grep -q "$2"; }
zncctl exec -d web sleep "$mark"
check 'top lists the first program' has_process web 'echo tick'
check 'top lists other programs of the container' eventually has_process web " sleep $mark\$"
rm -r /run/zarnel/containers/web
check 'top needs no record of zncctl' has_process web " sleep $mark\$"
run zncctl top made
fails_with 'of a container that is not running it exits 3' 3 'it is not running'
run zncctl delete -f web made
expect 'all containers are deleted' 0 $'web\nmade' ''
check 'no program is left' eventually not program_lives

# Control groups are the whole machine's, also in a sandbox: the id must be unique.
groups() { [[ -n $(find /sys/fs/cgroup -type d -name "last-$mark-*" 2>/dev/null) ]]; }
paused "last-$mark"
check 'a container has a control group' groups
zncctl exec -d "last-$mark" sleep "$mark" 2>/dev/null
zncctl resume -q "last-$mark"
zncctl exec -d "last-$mark" sleep "$mark"
zncctl delete -q -f "last-$mark"
stop_daemon
check 'the control group is removed with the container' not groups
finish
