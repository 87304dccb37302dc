#!/usr/bin/env bash
# Tests of what a container's program receives from the caller of zncctl: its streams and their end, and
# nothing else.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need python3
: "${FORGER:?the program that forges ends}"
start_daemon

no_containers() { [[ -z $(zncctl list -q) ]]; }
status_is() { [[ $(zncctl list | awk -v id="$1" '$1 == id { print $2 }') == "$2" ]]; }
sum_of() { sha256sum "$@" | cut -d ' ' -f 1; }
# made FILE TEXT: checks that the file has this content, and the mode and owner of a file created by this
# test.
unchanged() { [[ $(<"$1") == "$2" && $(stat -c '%a %u %g %h' "$1") == '644 0 0 1' ]]; }

# script NAME TEXT: creates a bundle whose shell runs the text, which is stored in a file of the root.
script() {
    make_bundle "$work/$1" /bin/sh /tmp/script
    printf '%s\n' "$2" >"$work/$1/rootfs/tmp/script"
}

# shellcheck disable=SC2016
script look 'for fd in /proc/self/fd/*; do echo "${fd##*/} $(/bin/busybox readlink $fd)"; done >&2
echo out'
: >"$work/file"
exec 7<"$work/file"
"$ZNCCTL" run --rm -i -b "$work/look" <"$work/file" >"$work/out" 2>"$work/err"
exec 7<&-
check 'files as streams become pipes' test "$(grep -c '^[012] pipe:' "$work/err")" = 3
# The shell itself has its script open, and the command substitution a pipe.
check 'no descriptor of the caller is there' not grep -qE "$work|socket:|/dev/(pts|tty)" "$work/err"
check 'the output comes out' test "$(<"$work/out")" = out

# shellcheck disable=SC2016
script attack 'for fd in 0 1 2; do
    file=/proc/self/fd/$fd
    (echo hacked >$file) 2>/dev/null
    (echo hacked 1<>$file >&1) 2>/dev/null
    /bin/busybox chmod 6777 $file 2>/dev/null
    /bin/busybox chown 1:1 $file 2>/dev/null
    /bin/busybox truncate -s 0 $file 2>/dev/null
    /bin/busybox ln -L $file /tmp/link$fd 2>/dev/null
done
exit 6'
for redirection in '<' '<>'; do
    (umask 022 && echo mine >"$work/input")
    bash -c "\"\$0\" run --rm -i -b \"\$1/attack\" $redirection\"\$1/input\" >/dev/null 2>&1" "$ZNCCTL" "$work"
    check "run $redirection file: the program ran" test $? = 6
    check "run $redirection file: the file has not changed" unchanged "$work/input" mine
done
(umask 022 && : >"$work/output" && : >"$work/errors")
"$ZNCCTL" run --rm -i -b "$work/attack" >"$work/output" 2>"$work/errors" </dev/null
check 'run > file: the program cannot change the mode or the owner of the file' \
    test "$(stat -c '%a %u %g %h' "$work/output" "$work/errors" | uniq)" = '644 0 0 1'
zncctl create attack "$work/attack"
"$ZNCCTL" start -a attack <"$work/input" >"$work/output"
check 'start --attach: neither of both' unchanged "$work/input" mine
check 'the file of its output keeps its mode, too' test "$(stat -c %a "$work/output")" = 644
zncctl delete -q attack
echo from-the-caller | "$ZNCCTL" run --rm -i -b "$work/attack" | cat >/dev/null
check "with pipes of the caller the program runs as usual" test "${PIPESTATUS[1]}" = 6
mkfifo -m 600 "$work/fifo"
"$ZNCCTL" run --rm -i -b "$work/attack" <"$work/fifo" >/dev/null &
runner=$!
echo x >"$work/fifo"
wait $runner
check 'a FIFO keeps its mode' test "$?/$(stat -c %a "$work/fifo")" = 6/600

# Streams that are closed, in every combination, and those that cannot be read or written.
make_bundle "$work/seven" /bin/sh -c 'echo out; echo err >&2; cat >/dev/null; exit 7'
for closed in '' '<&-' '>&-' '2>&-' '<&- >&-' '<&- 2>&-' '>&- 2>&-' '<&- >&- 2>&-'; do
    bash -c "\"\$0\" run --rm -i -b \"\$1/seven\" </dev/null >\"\$1/out\" 2>\"\$1/err\" $closed" "$ZNCCTL" "$work"
    check "run $closed ends as its program does" test $? = 7
    wanted=out/err
    [[ $closed == *' >&-'* || $closed == '>&-'* ]] && wanted=${wanted/out/}
    [[ $closed == *'2>&-'* ]] && wanted=${wanted/err/}
    check "run $closed prints to the open streams" test "$(<"$work/out")/$(<"$work/err")" = "$wanted"
done
make_bundle "$work/two" /bin/sh -c 'cat; echo two'
"$ZNCCTL" run --rm -i -b "$work/two" <"$work" >"$work/out" 2>"$work/err"
check 'a directory as input is reported and not read' test "$?/$(<"$work/out")/$(wc -l <"$work/err")" = 125/two/1
check 'the message names standard input' grep -q 'standard input: Target is a directory$' "$work/err"
"$ZNCCTL" run --rm -i -b "$work/two" >/dev/full 2>"$work/err" </dev/null
check 'a full disk is reported' test "$?/$(wc -l <"$work/err")" = 125/1
check 'the message names standard output' grep -q 'standard output: No space left on device$' "$work/err"
make_bundle "$work/nine" /bin/sh -c 'echo x; exit 9'
"$ZNCCTL" run --rm -i -b "$work/nine" >/dev/full 2>"$work/err" </dev/null
check "a program's own failure is not covered up" test $? = 9
"$ZNCCTL" run --rm -i -b "$work/two" >"$work/out" 2>"$work/err" 0>/dev/null
check 'input that is open for writing only is empty' test "$?/$(<"$work/out")/$(<"$work/err")" = 0/two/

# Order, amount, pressure.
# shellcheck disable=SC2016
script both 'i=0; while [ $i -lt 500 ]; do echo $i; i=$((i+1)); echo $i >&2; i=$((i+1)); done'
"$ZNCCTL" run --rm -i -b "$work/both" >"$work/out" 2>&1 </dev/null
check 'output and errors to one file keep their order' test "$(<"$work/out")" = "$(seq 0 499)"
make_bundle "$work/cat" /bin/cat
dd if=/dev/urandom of="$work/big" bs=1M count=100 status=none
wanted=$(sum_of "$work/big")
"$ZNCCTL" run --rm -i -b "$work/cat" <"$work/big" >"$work/copy"
check '100 MB from file to file' test "$?/$(sum_of "$work/copy")" = "0/$wanted"
echo begin >"$work/copy"
# shellcheck disable=SC2002
cat "$work/big" | "$ZNCCTL" run --rm -i -b "$work/cat" >>"$work/copy"
check '100 MB from a pipe behind what a file holds' \
    test "$?/$(tail -c +7 "$work/copy" | sum_of)" = "0/$wanted"
# shellcheck disable=SC2002
out=$(cat "$work/big" | "$ZNCCTL" run --rm -i -b "$work/cat" | dd bs=777 iflag=fullblock status=none | sum_of)
check '100 MB from pipe to pipe, read in odd pieces' test "$out" = "$wanted"
cat >"$work/sockets.py" <<'PY'
import hashlib, os, socket, subprocess, sys, threading
ours, theirs = socket.socketpair()
run = subprocess.Popen([os.environ["ZNCCTL"], "run", "--rm", "-i", "-b", sys.argv[1]], stdin=theirs, stdout=theirs)
theirs.close()
data = open(sys.argv[2], "rb").read()
def feed():
    ours.sendall(data)
    ours.shutdown(socket.SHUT_WR)
threading.Thread(target=feed).start()
got = hashlib.sha256()
while piece := ours.recv(12345):
    got.update(piece)
print(run.wait(), got.hexdigest())
PY
run python3 "$work/sockets.py" "$work/cat" "$work/big"
expect '100 MB over a socket' 0 "0 $wanted" ''
rm "$work/big" "$work/copy"

# The program must block in write() if nothing reads its output: 4 MB exceed the capacity of all pipes.
make_bundle "$work/much" /bin/sh -c "dd=1; /bin/busybox head -c 4000000 /dev/zero; echo done >&2; exit 5"
mkfifo "$work/slow"
exec 9<>"$work/slow"
"$ZNCCTL" run --rm -i -b "$work/much" >"$work/slow" 2>"$work/err" </dev/null &
runner=$!
case $(uname -m) in
x86_64) write=1 ;;
*) write=64 ;; # the number of newer processors
esac
# The process is in write().
writes() {
    local proc
    for proc in /proc/[0-9]*; do
        [[ $(tr '\0' ' ' 2>/dev/null <"$proc/cmdline") == *'head -c 4000000'* ]] || continue
        grep -q "^$write " "$proc/syscall" && return 0
    done
    return 1
}
check 'a program blocks until its output is read' eventually writes
check 'the blocked program has not ended' test -z "$(<"$work/err")"
check 'zncctl waits for the blocked program' kill -0 $runner
out=$(head -c 4000000 <&9 | wc -c)
wait $runner
check 'the program continues when its output is read' test "$?/$out/$(<"$work/err")" = 5/4000000/done
exec 9<&-

make_bundle "$work/yes" /bin/busybox yes
"$ZNCCTL" run --rm -i -b "$work/yes" </dev/null | head -n 1 >"$work/out"
check 'a reader that goes ends the program as it would' test "${PIPESTATUS[0]}/$(<"$work/out")" = 141/y
# shellcheck disable=SC2016
script waits 'echo ready >&2; while ! [ -e /tmp/go ]; do sleep 0.02; done; echo x; echo "status $?" >&2'
bash -c '"$0" run --rm -i -b "$1/waits" 2>"$1/err" </dev/null | :; echo "${PIPESTATUS[0]}" >"$1/out"' \
    "$ZNCCTL" "$work" &
runner=$!
eventually grep -q ready "$work/err"
# zncctl closes its end of the pipe even though nothing has been written to it yet.
id=$(zncctl list -q)
pid=$(zncctl top "$id" | awk 'NR == 2 { print $1 }')
keeper=$(sed -n 's/.*"keeper": \([0-9]*\).*/\1/p' "/run/zarnel/containers/$id/status.json")
pipe=$(readlink "/proc/$pid/fd/1")
reader_gone() { [[ $(readlink "/proc/$keeper"/fd/*) != *"$pipe"* ]]; }
check 'also one that went before anything was written' eventually reader_gone
touch "/proc/$pid/root/tmp/go"
wait $runner
check 'the first writing ends the program' test "$(<"$work/out")" = 141

# Input: end of file, and a program that does not read it.
out=$(printf 'a\nb' | "$ZNCCTL" run --rm -i -b "$work/cat")
check 'the end of input is passed on' test "$out" = $'a\nb'
echo early >"$work/fifo" &
exec 9<"$work/fifo"
wait $!
out=$("$ZNCCTL" run --rm -i -b "$work/cat" <&9 9<&-)
check 'also that of a FIFO whose writer has gone before' test "$out" = early
exec 9<&-
make_bundle "$work/closes" /bin/sh -c 'exec <&-; echo closed'
out=$(yes | "$ZNCCTL" run --rm -i -b "$work/closes")
check 'input that is not read does not delay the end' test "$?/$out" = 0/closed
mkfifo "$work/endless"
exec 9<>"$work/endless"
out=$("$ZNCCTL" run --rm -i -b "$work/closes" <"$work/endless" 9<&-)
check 'endless input does not delay the end' test "$?/$out" = 0/closed
exec 9<&-

# Processes that the program leaves behind.
make_bundle "$work/leaves" /bin/sh -c "(sleep $mark) & echo last; exit 3"
zncctl create leaves "$work/leaves"
run zncctl start -a leaves
expect 'start --attach does not wait for what the program left behind' 3 last ''
check 'the process left behind continues' program_lives
zncctl delete -qf leaves
make_bundle "$work/floods" /bin/sh -c '/bin/busybox yes & sleep 0.1; echo last; exit 3'
zncctl create floods "$work/floods"
"$ZNCCTL" start -a floods </dev/null 2>&1 | grep -c last >"$work/out"
check 'start --attach does not wait for a process that never stops writing' test "${PIPESTATUS[0]}/$(<"$work/out")" = 3/1
zncctl delete -qf floods
zncctl run --name floods -d -b "$work/floods" >/dev/null
run zncctl wait --timeout 60 floods
expect 'the monitor does not wait for processes left behind' 0 3 ''
zncctl delete -qf floods
# shellcheck disable=SC2016
make_bundle "$work/rest" /bin/sh -c "(sleep $mark) & i=0; while [ \$i -lt 5000 ]; do echo line \$i; i=\$((i+1)); done; exit 2"
out=$("$ZNCCTL" run --rm -i -b "$work/rest" </dev/null | { sleep 0.2; tail -n 1; })
check 'all that the program wrote is passed on, however late it is read' test "$out" = 'line 4999'

# A process in the container can open the other end of a pipe for reading: zncctl must not wait for bytes that
# were consumed there.
# shellcheck disable=SC2016
script steals '/bin/busybox dd if=/proc/self/fd/1 of=/dev/null 2>/dev/null & thief=$!
i=0; while [ $i -lt 2000 ]; do echo $i; i=$((i+1)); done; kill -9 $thief; exit 3'
zncctl create steals "$work/steals"
"$ZNCCTL" start -a steals </dev/null >/dev/null
check 'bytes that the container takes back do not stop zncctl' test $? = 3
zncctl delete -qf steals
zncctl run --name steals -d -b "$work/steals" >/dev/null
run zncctl wait --timeout 60 steals
expect 'the monitor is not stopped by bytes that are taken back' 0 3 ''
zncctl delete -qf steals

# Stops that are not the end of the program.
for how in trace parent; do
    make_bundle "$work/$how" /bin/forger $how
    cp "$FORGER" "$work/$how/rootfs/bin/forger"
done
"$ZNCCTL" run --rm -i -b "$work/parent" </dev/null
check 'a program cannot make children of the caller' test $? = 7
stopped() { grep -qs '^State:.*tracing stop' /proc/[0-9]*/status; }
"$ZNCCTL" run --rm -i --name trace -b "$work/trace" </dev/null &
runner=$!
eventually stopped
zncctl kill -q -s KILL trace
wait $runner
check 'a stop is no end, and the real one has its status' test $? = 137
zncctl run --name trace -d -b "$work/trace" >/dev/null
eventually stopped
zncctl kill -q -s KILL trace
run zncctl wait trace
expect 'a stop is not taken for the end by the monitor' 0 137 ''
zncctl delete -qf trace
check 'no container of the programs is left' no_containers

# Nothing else is inherited from the caller.
# shellcheck disable=SC2016
script rest_of 'umask; pwd; /bin/busybox env | /bin/busybox sort | /bin/busybox tr "\n" " "
read -r _ _ _ _ group session tty _ </proc/self/stat
echo; [ $group = $session ] && echo $tty; echo >/dev/tty' 2>/dev/null
cd "$work" || exit 1
(umask 077 && SECRET=1 "$ZNCCTL" run --rm -i -b "$work/rest_of" </dev/null >"$work/out" 2>/dev/null)
cd / || exit 1
check 'umask, directory and environment are the container'\''s' \
    test "$(head -n 3 "$work/out")" = $'0022\n/\nPATH=/bin PWD=/ SHLVL=1 '
check 'the program has a session and no terminal' test "$(sed -n 4p "$work/out")" = 0

# Logs.
make_bundle "$work/pipes" /bin/sh -c '/bin/busybox readlink /proc/self/fd/1; /bin/busybox readlink /proc/self/fd/2; exec sleep '"$mark"
zncctl run --name pipes -d -b "$work/pipes" >/dev/null
check 'the log is there when run -d returns' test -e /run/zarnel/containers/pipes/log
logged() { [[ $(zncctl logs pipes | grep -c '^pipe:') == 2 ]]; }
check 'a detached program writes to a pipe, not to its log' eventually logged
zncctl delete -qf pipes
make_bundle "$work/once" /bin/echo once
wanted='' out=''
for i in {1..20}; do
    zncctl run --name "once$i" -d -b "$work/once" >/dev/null
    zncctl wait "once$i" >/dev/null
    out+=$(zncctl logs "once$i")
    wanted+=once
    zncctl delete -q "once$i"
done
check 'the log is complete when wait returns' test "$out" = "$wanted"

check 'no container is left' no_containers
finish
