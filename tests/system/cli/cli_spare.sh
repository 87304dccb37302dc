#!/usr/bin/env bash
# Tests of zncd --spare: a spare is used by the next container, is replaced, and ends with the daemon.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox

spares() { pgrep -P "$daemon" -x zn-spare; }
starter() { pgrep -P "$daemon" -x zn-starter; }
# has_spares NUMBER: whether there are so many. A request lets the daemon look after them.
has_spares() {
    zncctl ping >/dev/null
    [[ $(spares | wc -l) = "$1" ]]
}
keepers() { pgrep -P "$daemon" -x zn-keeper; }
is_keeper() { [[ $(keepers) = "$1" ]]; }
gone() { not kill -0 "$@" 2>/dev/null; }
# dead PROCESS: whether it has ended, reaped or not
dead() { [[ $(ps -o stat= -p "$1") != [RSD]* ]]; }

life() { zncctl create --quiet echo "$work/hello" && zncctl start --attach echo && zncctl delete --quiet echo; }

make_bundle "$work/loop" /bin/sleep "$mark"
make_bundle "$work/hello" /bin/echo hello

for option in --spare '--spare x' '--spare -1' '--spare 17' '--spare 1x'; do
    # shellcheck disable=SC2086
    run "$ZNCD" $option
    check "zncd $option is a usage error" test "$status/${err%%:*}" = 64/usage
done

start_daemon
check 'there is one spare by default' eventually has_spares 1
spare=$(spares)
run zncctl create web "$work/loop"
expect 'a container is created' 0 '' ''
check 'its keeper is the spare' is_keeper "$spare"
check 'the spare is replaced' eventually has_spares 1
check 'the replacement is another process' test "$(spares)" != "$spare"
run zncctl list -q
expect 'only the container is listed' 0 web ''
zncctl start web
check 'its program runs' eventually program_lives
zncctl delete --force --quiet web
check 'the keeper ends with the container' eventually gone "$spare"
check 'only spares have a mount namespace but no record' test -z "$(ls /run/zarnel/ns)"

# ---------------------------------------------------------------- processes that die
spare=$(spares)
kill -KILL "$spare"
eventually dead "$spare"
run life
expect 'a container is created although the spare was killed' 0 hello ''
check 'it is replaced, too' eventually has_spares 1
first=$(starter)
kill -KILL "$first"
eventually dead "$first"
run life
expect 'a container is created although the starter was killed' 0 hello ''
check 'another starter makes a spare' eventually has_spares 1
check 'the starter is another process' test "$(starter)" != "$first"

# ---------------------------------------------------------------- settings
start_privileged() {
    stop_daemon
    start_daemon --allow-privileged
    eventually has_spares 1
}
start_privileged
spare=$(spares)
cp -r "$work/loop" "$work/host"
jq '.linux={"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"},{"type":"cgroup"}]}' \
    "$work/loop/config.json" >"$work/host/config.json"
run zncctl create web "$work/host"
expect 'a container in the network of the host is created' 0 '' ''
check 'it does not use the spare' test "$(spares)" = "$spare"
zncctl delete --quiet web

# ---------------------------------------------------------------- the daemon ends
children=$(pgrep -P "$daemon")
# shellcheck disable=SC2086
check 'there are the starter and a spare' test "$(wc -w <<<$children)" = 2
stop_daemon
check 'zncd exits with 0' test "$status" = 0
# shellcheck disable=SC2086
check 'no process is left after a stop' gone $children
start_daemon
eventually has_spares 1
children=$(pgrep -P "$daemon")
stop_daemon KILL
# shellcheck disable=SC2086
check 'they end with a killed daemon' eventually gone $children

# ---------------------------------------------------------------- numbers
start_daemon --spare 3
check 'there are as many as --spare says' eventually has_spares 3
for name in a b c d; do
    run zncctl create "$name" "$work/loop"
    expect "container $name is created" 0 '' ''
done
check 'there are three again' eventually has_spares 3
check 'each container has a keeper' test "$(keepers | wc -l)" = 4
stop_daemon
start_daemon --spare 0
run life
expect 'containers run without spares' 0 hello ''
check '--spare 0 makes none' test -z "$(pgrep -P "$daemon")"
stop_daemon
start_daemon --userns
run zncctl ping
check 'with --userns there are none' test -z "$(pgrep -P "$daemon" -x zn-spare)"
stop_daemon

finish
