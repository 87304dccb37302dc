#!/usr/bin/env bash
# Tests of zncd: only one at a time, an orderly stop, and the cleanup after a daemon that died.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox

usage='usage: zncd [--foreground] [--log-level LEVEL] [--allow-urgent] [--allow-privileged] [--userns] [--keep] [--spare N] | check | --help | --version'
run "$ZNCD" --version
check 'the version is one line' grep -qx 'zncd [0-9]*\.[0-9]*\.[0-9]*' "$work/out"
run "$ZNCD" --help
check 'help goes to standard output' test "$status/${out%%$'\n'*}/$err" = \
    "0/$usage/"
run "$ZNCD" --frobnicate
expect 'an unknown option is a usage error' 64 '' "$usage"
run "$ZNCD" --version more
expect 'further arguments are a usage error' 64 '' "$usage"

# Use a copy, because the build directory may be accessible only to root.
install -m 755 "$ZNCD" /tmp/zncd.copy
run setpriv --reuid 65534 --regid 65534 --clear-groups /tmp/zncd.copy
rm /tmp/zncd.copy
expect 'zncd must be run as root' 1 '' "zncd: error: must be run as root: namespaces and mounts require it"
check 'zncd without root creates nothing' test ! -e /run/zarnel
mount -o remount,ro /run
run "$ZNCD"
mount -o remount,rw /run
expect 'a /run that cannot be written stops it' 1 '' 'zncd: error: /run/zarnel: Read-only file system'

ZNC_BASE=no/absolute/path start_daemon
check 'a relative storage base does not count' test -d /ram0/znc/containers
stop_daemon
rm -rf /ram0

start_daemon
check 'the runtime directory is accessible to root only' test "$(stat -c %a:%u /run/zarnel)" = 700:0
check 'the lock file names it' test "$(<"/run/zarnel/zncd.lock")" = "$daemon"
printf 'pid %s\nstarted 1\nversion 9.9.9\n' "$daemon" >/run/zarnel/zncd.info
run zncctl version
check 'a file that another process wrote is not believed' not grep -q '9\.9\.9' "$work/out"
run "$ZNCD"
expect 'a second daemon says who is there' 1 '' \
    "zncd: error: a daemon is running already, process $daemon"
check 'the first daemon serves after a second one was refused' alive
stop_daemon
start_daemon
run zncctl version
check 'the version of the running daemon is printed' \
    grep -qx "daemon    $("$ZNCD" --version | cut -d' ' -f2)" "$work/out"

make_bundle "$work/loop" /bin/sleep "$mark"
two_containers() {
    zncctl create made "$work/loop"
    zncctl create runs "$work/loop"
    zncctl start runs
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
    check "zncd exits with 0 on $signal" test "$status" = 0
    check "$signal leaves no process, device or directory" nothing_left
    run zncctl ping
    fails_with "the queue is gone after $signal" 4 'The daemon is not running'
done

start_daemon
make_bundle "$work/waits" /bin/sleep "$mark"
zncctl create waits "$work/waits"
"$ZNCCTL" start -a waits 2>/dev/null &
starter=$!
eventually program_lives
# Of a running program, a signal fails until the daemon has been told the process, by the last
# request of 'start'.
check 'the program gets signals' eventually zncctl kill -q -s CONT waits
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
check 'the containers of a killed daemon end' eventually not program_lives
start_daemon
check 'a new one serves' alive
check 'the new daemon logs that the previous one died' grep -q 'the previous daemon died' "$work/zncd.log"
check 'nothing of the old one is left' eventually nothing_left
run zncctl list -f json
expect 'the new daemon has no containers' 0 '[]' ''
run zncctl create runs "$work/loop"
expect 'the old ids are free' 0 '' ''
stop_daemon

mkdir -p "$ZNC_BASE"/containers/{stale/upper/deep,stale/work,foreign} "$work/outside"
touch "$work/outside/file" "$ZNC_BASE/containers/stale/upper/deep/file" \
    "$ZNC_BASE/containers/foreign/file"
ln -s "$work/outside" "$ZNC_BASE/containers/stale/upper/link"
ln -s "$work/outside" "$ZNC_BASE/containers/link"
# Deeper than the descriptor limit of the daemon.
(cd "$ZNC_BASE/containers/stale/upper" && mkdir -p "$(printf 'd/%.0s' {1..1900})")
check 'the deep tree is there' test $? = 0
ulimit -Sn 256
start_daemon
ulimit -Sn hard
check 'directories of dead containers are removed' test ! -e "$ZNC_BASE/containers/stale"
check 'links in them are not followed' test -e "$work/outside/file"
check 'foreign files in a container directory stay' test -e "$ZNC_BASE/containers/foreign/file"
check 'a link instead of a directory stays' test -L "$ZNC_BASE/containers/link"
stop_daemon

rm -rf /run/zarnel
ln -s "$work/outside" /run/zarnel
run "$ZNCD"
check 'a link in place of its directory is refused' test "$status/$out" = 1/
check 'nothing is written through the link' test "$(ls "$work/outside")" = file
rm /run/zarnel

mkdir -p "$work/base"
chown 1000 "$work/base"
ZNC_BASE=$work/base run "$ZNCD"
expect 'a storage base of another user stops it' 1 '' \
    "zncd: error: missing requirement: a storage base that no other user can write to (ZNC_BASE): $work/base belongs to another user"
ZNC_BASE=$work/base run "$ZNCD" check
check 'zncd check names the owner of the storage base' grep -qx "no   a storage base .*: $work/base belongs to another user" "$work/out"
check 'zncd check fails for an untrusted storage base' test "$status" = 1
check 'nothing is created in the untrusted storage base' test -z "$(ls "$work/base")"
rm -rf /run/zarnel

for words in '--log-level' '--log-level loud' '--foreground check' 'check --foreground'; do
    # shellcheck disable=SC2086
    run "$ZNCD" $words
    check "zncd $words is a usage error" test "$status/$out" = 64/
done
run "$ZNCD" check
check 'check finds all that is needed here' test "$status/$err" = 0/
check 'zncd check prints a line for each requirement' test "$(grep -cE '^(yes|no ) ' "$work/out")" = 14
check 'zncd check leaves nothing' test ! -e /run/zarnel
install -m 755 "$ZNCD" /tmp/zncd.copy
run setpriv --reuid 65534 --regid 65534 --clear-groups /tmp/zncd.copy check
check 'a requirement that is not met is reported' test "$status" = 1
check 'an unmet requirement has its consequence' grep -qx "no   root: namespaces and mounts require it" "$work/out"

if command -v strace >/dev/null; then
    # The leak sanitizer does not work below strace.
    lacking=(env ASAN_OPTIONS=detect_leaks=0 strace -q -o "$work/trace" -e trace=pidfd_open
        -e inject=pidfd_open:error=ENOSYS)
    run "${lacking[@]}" "$ZNCD" check
    check 'a call that the kernel lacks is named' grep -qx \
        'no   process descriptors (pidfd_open): a reused process id could refer to another process' \
        "$work/out"
    check 'zncd check fails if a call is missing' test "$status" = 1
    run "${lacking[@]}" "$ZNCD"
    expect 'zncd does not serve if a mandatory call is missing' 1 '' \
        'zncd: error: missing requirement: process descriptors (pidfd_open): a reused process id could refer to another process'
else
    printf 'skipped: strace is not installed, no missing call is tried\n'
fi

# A socket like that of systemd; the messages are written to a file.
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.settimeout(60)
s.bind("\0znc-notify-test" if sys.argv[1] == "abstract" else sys.argv[1])
open(sys.argv[2], "w").close()
for _ in range(2):
    text = s.recv(64).decode()
    print(text, file=open(sys.argv[2], "a"), flush=True)
' "$work/notify" "$work/notified" &
listener=$!
eventually test -S "$work/notify"
NOTIFY_SOCKET=$work/notify "$ZNCD" --foreground --log-level debug >"$work/zncd.log" 2>&1 </dev/null &
daemon=$!
check 'zncd notifies that it is ready' eventually grep -qx READY=1 "$work/notified"
check 'zncd answers as soon as it is ready' alive
make_bundle "$work/loop" /bin/sleep "$mark"
zncctl create web "$work/loop"
zncctl state nosuch 2>/dev/null
stop_daemon
wait "$listener"
check 'zncd notifies that it stops' test "$(<"$work/notified")" = $'READY=1\nSTOPPING=1'
check 'a request is logged at level debug' grep -qx 'zncd: debug: request create web: done 0x0' "$work/zncd.log"
check 'a failed request is logged at level debug' grep -qx 'zncd: debug: request state nosuch: failed 0x13' \
    "$work/zncd.log"
JOURNAL_STREAM=1:2 run setpriv --reuid 65534 --regid 65534 --clear-groups /tmp/zncd.copy
rm /tmp/zncd.copy
check 'the journal gets the level in front' grep -q '^<3>zncd: error: ' "$work/err"
NOTIFY_SOCKET=$work/nobody start_daemon
check 'a socket that is not read is a warning' grep -q '^zncd: warning: cannot notify .*/nobody of' \
    "$work/zncd.log"
stop_daemon
check 'requests are not logged at the default level' not grep -q debug "$work/zncd.log"

make_bundle "$work/urgent" /bin/sleep "$mark"
sed -i '1s/{/{"zarnel": {"rtp": {"rtpPriority": "0"}}, /' "$work/urgent/config.json"
# nice_values: prints the nice values of a program that asks for the most urgent priority, and of one that
# does not.
nice_values() {
    local bundle
    for bundle in urgent loop; do
        zncctl create web "$work/$bundle" && zncctl start web >/dev/null && eventually program_lives
        ps -o ni= -p "$(pgrep -fx "/bin/sleep $mark")" | tr -d ' '
        zncctl delete --force --quiet web
    done
}
start_daemon
check 'without --allow-urgent no program is urgent' test "$(nice_values | tr '\n' ' ')" = '0 0 '
zncctl create again "$work/urgent"
zncctl create once-more "$work/urgent"
stop_daemon
check 'an urgent priority is logged only once' test "$(grep -c 'asks for the urgent priority 0 but runs at normal priority' \
    "$work/zncd.log")" = 1
check 'the warning names the container and the option' grep -q '^zncd: warning: container web .* --allow-urgent$' \
    "$work/zncd.log"
start_daemon --allow-urgent
check 'with --allow-urgent only programs that ask for it are urgent' test "$(nice_values | tr '\n' ' ')" = '-20 0 '
stop_daemon
check 'with --allow-urgent no warning is logged' not grep -q urgent "$work/zncd.log"

# ---------------------------------------------------------------- other users
start_daemon
install -m 755 "$ZNCCTL" /tmp/zncctl.copy
for command in ping list; do
    run setpriv --reuid 65534 --regid 65534 --clear-groups /tmp/zncctl.copy $command
    check "$command of another user fails" test "$status" != 0 -a -z "$out"
    check 'the hint says that root is needed' grep -qx \
        'zncctl: hint: only root can reach the daemon: run this command as root' "$work/err"
done
rm /tmp/zncctl.copy
stop_daemon

# ---------------------------------------------------------------- settings beyond the defaults
cp -r "$work/loop" "$work/more"
jq '.linux={"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"},{"type":"cgroup"}]}' \
    "$work/loop/config.json" >"$work/more/config.json"
cp -r "$work/loop" "$work/wrong"
jq '.process.rlimits=[{"type":"RLIMIT_NOFILE","soft":2,"hard":1}]' "$work/loop/config.json" >"$work/wrong/config.json"
start_daemon
run zncctl create web "$work/more"
check 'without the option no container has the network of the host' test "$status/$out" = 1/
check 'the log says which member asked for it' grep -q \
    '^zncd: warning: container web: configuration refused: linux.namespaces: shares the network' "$work/zncd.log"
run zncctl create web "$work/wrong"
check 'a wrong member is refused' test "$status/$out" = 1/
check 'the refused member is named' grep -q '^The configuration was refused: process.rlimits\[0\].soft: ' "$work/err"
check 'nothing is left of either' test "$(zncctl list -q)" = ''
check 'no overlay device of the refused containers is left' test "$(overlay_mounts)/$(ls /overlay)" = 0/
stop_daemon
start_daemon --allow-privileged
run zncctl create web "$work/more"
expect 'with --allow-privileged the container is created' 0 '' ''
run zncctl create other "$work/wrong"
check 'invalid values are refused also with --allow-privileged' test "$status/$out" = 1/
zncctl delete --quiet web
stop_daemon

finish
