#!/usr/bin/env bash
# zncd: one at a time, an orderly stop, and what a new one makes of a dead one's leftovers.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox

run "$ZNCD" --version
check 'the version is one line' grep -qx 'zncd [0-9]*\.[0-9]*\.[0-9]*' "$work/out"
run "$ZNCD" --help
check 'help goes to standard output' test "$status/${out%%$'\n'*}/$err" = \
    '0/usage: zncd [--help] [--version]/'
run "$ZNCD" --frobnicate
expect 'an unknown option is a usage error' 64 '' 'usage: zncd [--help] [--version]'
run "$ZNCD" --version more
expect 'further arguments are a usage error' 64 '' 'usage: zncd [--help] [--version]'

# A copy, since the build may lie where only root can go.
install -m 755 "$ZNCD" /tmp/zncd.copy
run setpriv --reuid 65534 --regid 65534 --clear-groups /tmp/zncd.copy
rm /tmp/zncd.copy
expect 'it needs root and says so' 1 '' "zncd: namespaces and mounts are root's; run it as root"
check 'without root it leaves nothing' test ! -e /run/zarnel
mount -o remount,ro /run
run "$ZNCD"
mount -o remount,rw /run
expect 'a /run that cannot be written stops it' 1 '' 'zncd: /run/zarnel: Read-only file system'

ZNC_BASE=no/absolute/path start_daemon
check 'a relative storage base does not count' test -d /ram0/znc/containers
stop_daemon
rm -rf /ram0

start_daemon
check 'its directory is for root alone' test "$(stat -c %a:%u /run/zarnel)" = 700:0
check 'the lock file names it' test "$(<"/run/zarnel/zncd.lock")" = "$daemon"
run "$ZNCD"
expect 'a second daemon says who is there' 1 '' \
    "zncd: a daemon is running already, process $daemon"
check 'and the first goes on' alive

make_bundle "$work/loop" /bin/sleep "$mark"
two_containers() {
    zncctl create made "$work/loop"
    zncctl create runs "$work/loop"
    zncctl start -d runs
    eventually program_lives
}
nothing_left() {
    [[ $(overlay_mounts) = 0 && -z $(ls -A "$ZNC_BASE/containers") && -z $(ls /overlay) ]] &&
        not program_lives
}

for signal in TERM INT; do
    [[ -n $daemon ]] || start_daemon
    two_containers
    check "containers are there before $signal" program_lives
    stop_daemon $signal
    err=$(<"$work/zncd.log")
    check "it exits 0 on $signal" test "$status" = 0
    check "$signal leaves no process, device or directory" nothing_left
    run zncctl ping
    fails_with "the queue is gone after $signal" 4 'The daemon is not running'
done

start_daemon
make_bundle "$work/waits" /bin/sleep "$mark"
zncctl create waits "$work/waits"
"$ZNCCTL" start waits 2>/dev/null &
starter=$!
eventually program_lives
kill -s STOP "$daemon"
run zncctl ping
fails_with 'a daemon that does not answer is told after a while' 4 'No answer from the daemon'
kill -s CONT "$daemon"
eventually alive
stop_daemon KILL
wait "$starter"
check 'a waiting start ends with its program when the daemon is killed' test $? = 137

start_daemon
two_containers
stop_daemon KILL
check 'a killed daemon takes its containers along' eventually not program_lives
start_daemon
check 'a new one serves' alive
check 'and says what it found' grep -q 'the daemon before this one died' "$work/zncd.log"
check 'nothing of the old one is left' eventually nothing_left
run zncctl list -f json
expect 'it knows no containers' 0 '[]' ''
run zncctl create runs "$work/loop"
expect 'the old ids are free' 0 '' ''
stop_daemon

mkdir -p "$ZNC_BASE"/containers/{stale/upper/deep,stale/work,foreign} "$work/outside"
touch "$work/outside/file" "$ZNC_BASE/containers/stale/upper/deep/file" \
    "$ZNC_BASE/containers/foreign/file"
ln -s "$work/outside" "$ZNC_BASE/containers/stale/upper/link"
ln -s "$work/outside" "$ZNC_BASE/containers/link"
# Deeper than a daemon may have descriptors.
(cd "$ZNC_BASE/containers/stale/upper" && mkdir -p "$(printf 'd/%.0s' {1..1900})")
check 'the deep tree is there' test $? = 0
ulimit -Sn 256
start_daemon
ulimit -Sn hard
check 'directories of dead containers are removed' test ! -e "$ZNC_BASE/containers/stale"
check 'links in them are not followed' test -e "$work/outside/file"
check 'what is not its own stays' test -e "$ZNC_BASE/containers/foreign/file"
check 'a link instead of a directory stays' test -L "$ZNC_BASE/containers/link"
stop_daemon

rm -rf /run/zarnel
ln -s "$work/outside" /run/zarnel
run "$ZNCD"
check 'a link in place of its directory is refused' test "$status/$out" = 1/
check 'and nothing is written through it' test "$(ls "$work/outside")" = file
rm /run/zarnel

finish
