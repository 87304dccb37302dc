#!/usr/bin/env bash
# Tests of zncctl exec.
# shellcheck source=cli_lib.sh disable=SC2317,SC2016
. "$(dirname "$0")/cli_lib.sh"
need busybox
start_daemon

# monitors NUMBER: whether this many processes of zncctl run that this test has started.
monitors() {
    local proc count=0
    for proc in /proc/[0-9]*; do
        [[ $(cat "$proc/comm" 2>/dev/null) == zncctl ]] || continue
        grep -qz "^ZNC_BASE=$ZNC_BASE\$" "$proc/environ" 2>/dev/null && count=$((count + 1))
    done
    [[ $count == "$1" ]]
}
# has_process ID TEXT: whether a process of the container has a command that ends with the text.
has_process() { zncctl top "$1" | grep -q "$2\$"; }
stopped() { [[ $(zncctl list -q --status stopped) == "$1" ]]; }
exit_code_is() { [[ $(zncctl wait "$1") == "$2" ]]; }

make_bundle "$work/loop" /bin/sh -c "trap 'exit 6' TERM; while :; do sleep 0.05; done"
sed -i 's|"env": \["PATH=/bin"\]|"env": ["PATH=/bin", "KIND=first", "OTHER=x y"]|; s|"cwd": "/"|"cwd": "/tmp"|' \
    "$work/loop/config.json"
mkdir -p "$work/loop/rootfs/etc" "$work/loop/rootfs/home"
cat >"$work/loop/rootfs/etc/passwd" <<'PASSWD'
root:x:0:0:root:/root:/bin/sh
web:x:33:34::/home:/bin/sh
bad:x:-5:0::/:/bin/sh
PASSWD
printf 'www:x:34:\nadm:x:4:web\nmail:x:8:root,web\n' >"$work/loop/rootfs/etc/group"
for applet in id env pwd stty kill; do ln -sf busybox "$work/loop/rootfs/bin/$applet"; done
zncctl run --name web -d -b "$work/loop" >/dev/null

# Output, exit status, words.
run zncctl exec web echo hello
expect 'exec runs a program found in the PATH' 0 hello ''
run zncctl exec web /bin/sh -c 'echo out; echo err >&2; exit 7'
expect 'exec passes on both outputs and the exit status' 7 out err
run zncctl exec web /bin/sh -c 'kill -9 $$'
expect 'a program that a signal ended exits 128 plus its number' 137 '' ''
run zncctl exec web sh -c 'echo "$0 $*"' -i --detach -e x '' '[a,b]' -- z
expect 'words after the id belong to the command' 0 '-i --detach -e x  [a,b] -- z' ''
run zncctl exec web -- echo two
expect '"--" after the id is not part of the command' 0 two ''
run zncctl exec -- web echo -- three
expect '"--" before the command is not part of it' 0 '-- three' ''
run zncctl exec web sh -c 'echo $0'
expect 'the first word stays as written' 0 sh ''
run zncctl exec web /bin/sh -c 'cat /proc/2/cmdline | /bin/busybox tr "\\0" " "'
check 'the program sees the processes of the container' grep -q trap "$work/out"

# The environment.
run zncctl exec web env
check 'the environment is the configured one' grep -qx 'KIND=first' "$work/out"
check 'a variable with spaces is kept' grep -qx 'OTHER=x y' "$work/out"
check 'HOME is set for the user' grep -qx 'HOME=/root' "$work/out"
check 'no other variables are set' test "$(grep -cvE '^(KIND|OTHER|PATH|HOME|PWD|SHLVL)=' "$work/out")" = 0
sed -i 's/KIND=first/KIND=changed/' "$work/loop/config.json"
run zncctl exec web sh -c 'echo $KIND'
expect 'a later change of the bundle does not matter' 0 first ''
HOST_VALUE='from outside' run zncctl exec -e KIND=1 -e KIND=2 -e HOST_VALUE -e NOT_SET -e EMPTY= web \
    sh -c 'echo $KIND "$HOST_VALUE" ${NOT_SET-unset} ${EMPTY-unset}.'
expect '--env sets, takes over, and leaves out what is not set' 0 '2 from outside unset .' ''
run zncctl exec -e HOME=/elsewhere -u web web sh -c 'echo $HOME'
expect 'a given home stays' 0 /elsewhere ''
run zncctl exec -e 'ODD=[a,b]' web sh -c 'echo $ODD'
expect 'values are taken as they are' 0 '[a,b]' ''

# The working directory.
run zncctl exec web pwd
expect 'the working directory is the configured one' 0 /tmp ''
run zncctl exec -w /etc web pwd
expect '--workdir sets it' 0 /etc ''
run zncctl exec -w /bin web ./echo near
expect 'a relative command starts there' 0 near ''
run zncctl exec -w /no/such web echo
fails_with 'one that is not there exits 126' 126 "there is no directory /no/such in the container's root"

# The user.
run zncctl exec web id -u
expect "the default user is the container's" 0 0 ''
run zncctl exec -u web web sh -c 'id -u; id -g; id -G; echo $HOME'
expect '--user by name has its groups and home' 0 $'33\n34\n34 4 8\n/home' ''
run zncctl exec -u 33 web sh -c 'id -u; id -G; echo $HOME'
expect '--user by number has its groups and home' 0 $'33\n34 4 8\n/home' ''
run zncctl exec -u 77:8 web sh -c 'id -u; id -G; echo $HOME'
expect 'a number needs no entry' 0 $'77\n8\n/' ''
run zncctl exec -u web:mail web sh -c 'id -u; id -G'
expect 'with a given group there are no supplementary groups' 0 $'33\n8' ''
run zncctl exec -u nobody web id
fails_with 'a user that is not there exits 125' 125 "there is no user 'nobody' in the container's /etc/passwd"
run zncctl exec -u web:nogroup web id
fails_with 'a group that is not there, too' 125 "there is no group 'nogroup' in the container's /etc/group"
run zncctl exec -u bad web id
fails_with 'an entry that is not valid is refused' 125 \
    "the entry of user 'bad' in the container's /etc/passwd is not valid"
run zncctl exec -u 4294967295 web id
fails_with 'and a number that is no user' 125 'user 4294967295 is out of range'
# The container's processes can change these files.
run zncctl exec web sh -c "rm /etc/passwd; echo evil:x:0:0::/:/bin/sh >/tmp/passwd; ln -s ../../../tmp/passwd /etc/passwd"
run zncctl exec -u evil web id -u
expect 'links are resolved in the root' 0 0 ''
run zncctl exec web sh -c "rm /etc/passwd; ln -s $work/loop/rootfs/etc/passwd /etc/passwd"
run zncctl exec -u web web id
fails_with 'and do not lead out of it' 125 "there is no user 'web' in the container's /etc/passwd"
run zncctl exec web sh -c 'rm /etc/passwd; /bin/busybox mkfifo /etc/passwd'
run timeout 60 "$ZNCCTL" exec -u web web id
check 'a FIFO is refused at once' test "$status" = 125
run zncctl exec web sh -c 'rm /etc/passwd; /bin/busybox truncate -s 5G /etc/passwd'
run zncctl exec -u 5 web id
fails_with 'and a huge file' 125 '/etc/passwd of the container is larger than 1 MiB'
run zncctl exec web sh -c 'rm /etc/passwd'

# Failures to start.
run zncctl exec web no-such-program
fails_with 'a command that is not there exits 127' 127 \
    "no-such-program: there is no such program in the container's PATH"
run zncctl exec web /no/such
fails_with 'so does a path' 127 "/no/such: there is no such program in the container's root"
run zncctl exec web /etc
fails_with 'a directory exits 126' 126 '/etc: it is not a regular file'
run zncctl exec web /etc/group
fails_with 'a file without the right to be executed, too' 126 '/etc/group: it is not executable'
run zncctl exec nosuch echo
fails_with 'a container that does not exist exits 125' 125 'Container does not exist'
for words in '' web '-w etc web echo' '--user= web echo' '-e =x web echo' '--env= web echo' \
    '-d -t web echo' '-d -i web echo' '--odd web echo'; do
    # shellcheck disable=SC2086
    run zncctl exec $words
    check "exec $words is a usage error" test "$status/$out" = 64/
done
run zncctl exec -it web echo
fails_with '--tty and --interactive need a terminal' 125 \
    '--tty with --interactive needs a terminal on standard input'

# Standard streams.
out=$(printf 'one\ntwo\n' | zncctl exec -i web cat)
check '--interactive passes standard input on' test "$out" = $'one\ntwo'
out=$(printf 'one\n' | zncctl exec web cat)
check 'without -i standard input is empty' test "$out/$?" = /0
"$ZNCCTL" exec -i web cat <&- >"$work/out" 2>"$work/err"
check 'standard input can be closed' test "$?/$(cat "$work/out" "$work/err")" = 0/
"$ZNCCTL" exec web sh -c 'echo x; exit 3' >&-
check 'a closed output does not matter' test "$?" = 3
head -c 3000000 /dev/urandom >"$work/data"
"$ZNCCTL" exec -i web cat <"$work/data" >"$work/copy"
check 'megabytes pass both ways unchanged' cmp -s "$work/data" "$work/copy"
run zncctl exec web sh -c 'for n in 3 4 5 6 7 8 9 10; do test -e /proc/self/fd/$n && echo $n; done; :'
expect 'the program has no other descriptors' 0 '' ''
tail -f /dev/null --pid=$$ | "$ZNCCTL" exec -i web sh -c 'exit 4'
check 'input that does not end does not matter when the program has' test "${PIPESTATUS[1]}" = 4

# Signals.
# shellcheck disable=SC2016
"$ZNCCTL" exec web sh -c "trap 'echo caught; exit 5' TERM; echo ready; while :; do sleep 0.05; done" \
    >"$work/signals" 2>&1 </dev/null &
exec_pid=$!
eventually grep -q ready "$work/signals"
kill -TERM $exec_pid
wait $exec_pid
check 'signals are passed to the program' test "$?/$(tail -n 1 "$work/signals")" = 5/caught
check 'signals are not forwarded to the container' test "$(zncctl list | awk '$1 == "web" { print $2 }')" = running
"$ZNCCTL" exec web sh -c "echo ready; exec sleep $mark" >"$work/signals" 2>&1 </dev/null &
exec_pid=$!
eventually grep -q ready "$work/signals"
eventually has_process web "sleep $mark"
kill -INT $exec_pid
wait $exec_pid
check 'a signal that ends it gives its exit status' test "$?" = 130

# Detached.
out=$(zncctl exec -d web sleep "$mark" 2>&1)
check '--detach prints nothing and lets go of the output' test "$?/$out" = 0/
check 'the program runs on' eventually program_lives
check 'top lists it' eventually has_process web "sleep $mark"
run zncctl exec -d web no-such-program
fails_with 'a detached program that is not there exits 127' 127 \
    "no-such-program: there is no such program in the container's PATH"
zncctl exec web sh -c 'kill $(/bin/busybox pidof sleep)'
check 'a detached program can be ended from inside' eventually not program_lives
check 'no monitor waits for an ended program' eventually monitors 1

# The container's end, and what it counts as.
"$ZNCCTL" exec web sleep "$mark" >"$work/out" 2>"$work/err" </dev/null &
exec_pid=$!
eventually has_process web "sleep $mark"
zncctl kill -q -s TERM web
check 'the exit code of the first program stays its own' eventually exit_code_is web 6
check 'the container runs as long as the other one does' test \
    "$(zncctl list | awk '$1 == "web" { print $2, $3 }')" = 'running 6'
run zncctl exec web echo still
expect 'further programs can be started in it' 0 still ''
kill -TERM $exec_pid
wait $exec_pid
check 'the second program has its own exit status' test "$?" = 143
check 'the container has stopped after its last program' eventually stopped web
run zncctl exec web echo
fails_with 'exec in a stopped container exits 3' 3 'it is not running'
check 'and says what can be done' grep -q '^zncctl: hint: a container that has ended cannot be started again' "$work/err"
zncctl delete -q web
zncctl create made "$work/loop"
run zncctl exec made echo
fails_with 'also in one that was not started' 3 'it is not running'
check 'with another hint' grep -qx "zncctl: hint: 'zncctl start made' starts it" "$work/err"
zncctl delete -q made

# The end of the container ends them, and nothing stays.
zncctl run --name web -d -b "$work/loop" >/dev/null
zncctl exec -d web sleep "$mark"
"$ZNCCTL" exec -i web cat >"$work/out" 2>"$work/err" < <(exec tail -f /dev/null --pid=$$) &
exec_pid=$!
eventually has_process web cat
run zncctl delete -f web
expect 'delete --force ends a container with them' 0 web ''
wait $exec_pid
check 'the programs of exec are killed' test "$?" = 137
check 'no program is left' eventually not program_lives
check 'no container is left' test -z "$(zncctl list -q)"
check 'no process of zncctl is left' eventually monitors 0

# Starting many while the container ends: each runs or says why not, and none hangs.
for round in 1 2 3; do
    zncctl run --name race -d -b "$work/loop" >/dev/null
    pids=()
    for n in 1 2 3 4; do
        (for _ in 1 2 3 4 5; do
            timeout 60 "$ZNCCTL" exec race sh -c 'exit 9' </dev/null >/dev/null 2>&1
            printf '%s\n' $? >>"$work/race.$round.$n"
        done) &
        pids+=($!)
    done
    zncctl kill -q -s KILL -a race
    wait "${pids[@]}"
    check "round $round: every exec has run, was killed, or was refused" \
        not grep -qvxE '9|137|3|125' "$work"/race.$round.*
    check "round $round: the container has stopped" eventually stopped race
    zncctl delete -q race
done
check 'nothing of zncctl is left' eventually monitors 0
finish
