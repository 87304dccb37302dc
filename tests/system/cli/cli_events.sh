#!/usr/bin/env bash
# Tests of zncctl events: what happens to containers, from the journal and while it happens.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need jq
start_daemon
journal=/run/zarnel/events

make_bundle "$work/bundle" /bin/sleep $mark
ln -s busybox "$work/bundle/rootfs/bin/true"
# seen ARGUMENT...: the events as "NAME STATUS [EXIT CODE]", on one line.
seen() {
    zncctl events --no-stream --format json "$@" | jq -r '[.Name, .Status, .ContainerExitCode // empty] | map(tostring) | join(" ")' |
        tr '\n' ','
}
run zncctl events --no-stream
expect 'there are no events at first' 0 '' ''

# ---------------------------------------------------------------- the journal
run zncctl run --name short -b "$work/bundle" sh -c 'exit 3'
check 'the program ends' test "$status" = 3
check 'a run in the foreground is created, started and ended' test "$(seen)" = 'short create,short start,short died 3,'
zncctl rm -q short
zncctl run -d --name long -b "$work/bundle" >/dev/null
zncctl pause -q long
zncctl unpause -q long
zncctl rm -qf long
check 'delete --force is preceded by the end of the program' test "$(seen --filter container=long)" = \
    'long create,long start,long pause,long unpause,long died 137,long remove,'
zncctl run --rm --name gone -b "$work/bundle" true
zncctl run -d --rm --name away -b "$work/bundle" true >/dev/null
removed() { [[ $(seen --filter container=away) = 'away create,away start,away died 0,away remove,' ]]; }
check 'with --rm the end is followed by the removal, also detached' eventually removed
check 'run --rm in the foreground has the same events' test "$(seen --filter container=gone)" = 'gone create,gone start,gone died 0,gone remove,'
zncctl create made "$work/bundle"
zncctl delete -q made
check 'a container that was never started' test "$(seen --filter container=made)" = 'made create,made remove,'
run zncctl run --name none -b "$work/bundle" /no/such/program
check 'a program that does not exist starts nothing' test "$status/$(seen --filter container=none)" = '127/none create,none remove,'

run zncctl events --no-stream --filter container=short --filter event=died
check 'a line says when, what and with which exit code' grep -Eqx \
    "[0-9-]{10} [0-9:]{8}\.[0-9]{9} \+0000 UTC container died short \(image=, name=short, exitCode=3\)" "$work/out"
run zncctl events --no-stream --filter container=short --format '{{.Type}} {{.ID}} {{.Status}} {{.ContainerExitCode}}'
expect 'fields are printed as the format says' 0 $'container short create \ncontainer short start \ncontainer short died 3\ncontainer short remove ' ''
check 'filters of one key are alternatives' test "$(seen --filter event=died --filter event=remove --filter container=short)" = \
    'short died 3,short remove,'
check 'another type than containers has no events' test -z "$(seen --filter type=image)"
check 'the future has no events' test -z "$(seen --since 2999-01-01T00:00:00Z)"
check 'there are no events before the first one' test -z "$(seen --until 2001-01-01T00:00:00Z)"
check 'the last hour has' test "$(seen --since 1h)" = "$(seen)"
run zncctl events --until 2001-01-01T00:00:00Z
expect 'a time in the past ends the command at once' 0 '' ''
run zncctl events --since 1h --until 1s --filter container=short --format '{{.Status}}'
expect 'a time in the future ends it then' 0 $'create\nstart\ndied\nremove' ''
for words in '--filter bogus=1' '--filter container' '--since yesterday' '--until -1' '--format {{.Nothing}}' 'web'; do
    # shellcheck disable=SC2086
    run zncctl events --no-stream $words
    check "events $words is a usage error" test "$status/$out" = 64/
done
check 'the journal is for root alone' test "$(stat -c %a $journal $journal/journal | tr '\n' ' ')" = '700 600 '

# ---------------------------------------------------------------- while it happens
# follow ARGUMENT...: starts a command that writes to $work/stream.
follow() {
    : >"$work/stream"
    "$ZNCCTL" events --format '{{.Name}} {{.Status}}' "$@" >"$work/stream" 2>&1 </dev/null &
    follower=$!
    eventually follows
}
# It sleeps, and watches the journal.
follows() { grep -q '^State:.S' "/proc/$follower/status" && grep -q inotify "/proc/$follower/fdinfo/"* 2>/dev/null; }
streamed() { [[ $(<"$work/stream") = "$1" ]]; }
follow --filter container=live
zncctl run --rm --name live -b "$work/bundle" true
zncctl run --rm --name other -b "$work/bundle" true
check 'events are printed as they happen' eventually streamed $'live create\nlive start\nlive died\nlive remove'
check 'events before --since are not printed' not grep -q short "$work/stream"
switches() { awk '/^voluntary/ { print $2 }' "/proc/$follower/status"; }
before=$(switches)
sleep 2
check 'nothing wakes it while nothing happens' test "$(switches)" = "$before"
kill -s TERM "$follower"
wait "$follower" 2>/dev/null
check 'a signal ends it' test $? = 143
follow --since 1h --filter container=short --filter container=later
zncctl run --rm --name later -b "$work/bundle" true
check '--since prints what was before, and goes on' eventually streamed \
    $'short create\nshort start\nshort died\nshort remove\nlater create\nlater start\nlater died\nlater remove'
kill "$follower"
wait "$follower" 2>/dev/null

# ---------------------------------------------------------------- at once, and without end
follow --filter event=died
pids=()
for i in {1..10}; do
    "$ZNCCTL" run --rm --name "at$i" -b "$work/bundle" true </dev/null >"$work/run$i" 2>&1 &
    pids[i]=$!
done
wait "${pids[@]}"
all_died() { [[ $(sort "$work/stream" | uniq | wc -l) = 10 ]]; }
check 'containers that run at once all have their events' eventually all_died
check 'each event is printed once' test "$(wc -l <"$work/stream")" = 10
# The journal is full: the next event makes it the previous one.
{
    head -c 1100000 /dev/zero | tr '\0' ' '
    printf '\n{"time":1,"status":"dam\n'
} >>$journal/journal
zncctl run --rm --name rotated -b "$work/bundle" true
check 'a journal that is full is renamed' test -s $journal/journal.1
check 'the new journal is small' test "$(stat -c %s $journal/journal)" -lt 10000
rotated() { grep -q '^rotated died$' "$work/stream"; }
check 'a running command reads on after the journal was renamed' eventually rotated
check 'a new command reads both journals' test "$(seen --filter container=rotated)" = 'rotated create,rotated start,rotated died 0,rotated remove,'
kill "$follower"
wait "$follower" 2>/dev/null
rm -rf $journal
ln -s "$work/elsewhere" $journal
mkdir "$work/elsewhere"
run zncctl run --rm --name blind -b "$work/bundle" true
expect 'containers run without a journal' 0 '' ''
check 'a symbolic link does not lead the journal elsewhere' test -z "$(ls -A "$work/elsewhere")"
run zncctl events --no-stream
check 'a journal that cannot be opened is an error of events' test "$status/$out" = 1/
finish
