#!/usr/bin/env bash
# Tests of the life cycle of containers with zncctl and a real daemon.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need jq
start_daemon

run zncctl ping
expect 'ping says alive' 0 alive ''
run zncctl list
expect 'an empty list is its heading' 0 'ID  STATUS  EXIT  BUNDLE' ''
run zncctl list -q
expect 'an empty list of ids is empty' 0 '' ''
run zncctl list -f json
expect 'an empty JSON list is []' 0 '[]' ''

# status_is ID TEXT
status_is() { [[ $(zncctl list | awk -v id="$1" '$1 == id { print $2 }') == "$2" ]]; }
# runs_out ID: waits for the container to end by querying its state, because only a query detects the end.
runs_out() { zncctl state "$1" | grep -q '"status": 3'; }

make_bundle "$work/hello" /bin/sh -c 'echo hello; echo wrong >&2; exit 7'
run zncctl create hello "$work/hello"
expect 'create prints nothing' 0 '' ''
run zncctl create hello "$work/hello"
fails_with 'an id that is taken exits 3' 3 'Container already exists'
run zncctl list
check 'the list shows id, status and bundle' \
    test "${out##*$'\n'}" = "hello  created  -     $work/hello"
run zncctl list -q
expect 'the list of ids' 0 hello ''
run zncctl list --format json
expect 'the JSON list' 0 \
    "[{\"ociVersion\":\"1.0.0\",\"id\":\"hello\",\"status\":1,\"bundle\":\"$work/hello\"}]" ''
run zncctl state hello
expect 'the state of a created container' 0 \
    "{
  \"ociVersion\": \"1.0.0\",
  \"id\": \"hello\",
  \"status\": 1,
  \"bundle\": \"$work/hello\"
}" ''
run zncctl inspect hello
check 'inspect prints a JSON array' test "$status/${out:0:1}/$err" = '0/[/'
check 'inspect names the container' grep -q '"hello"' "$work/out"
run zncctl start -a hello
expect 'start --attach passes on output and exit status' 7 hello wrong
run zncctl state hello
check 'the container is stopped when its program has ended' grep -q '"status": 3' "$work/out"
run zncctl start -a hello
fails_with 'a stopped container cannot be started again' 125 'Container in use'
run zncctl start hello
fails_with 'nor detached' 3 'Container in use'
run zncctl list
check 'the exit code of the program is kept' \
    test "${out##*$'\n'}" = "hello  stopped  7     $work/hello"
run zncctl delete hello
expect 'delete prints the id' 0 hello ''

for command in 'start -a' start kill delete state inspect; do
    # shellcheck disable=SC2086
    run zncctl $command hello
    wanted=2
    [[ $command == 'start -a' ]] && wanted=125
    fails_with "$command of an unknown container exits $wanted" $wanted 'Container does not exist'
done

make_bundle "$work/loop" /bin/sleep "$mark"
cd "$work" || exit 1
run zncctl create rel loop
check 'a relative bundle is taken from the working directory' \
    grep -q "\"bundle\": \"$work/loop\"" <(zncctl state rel)
zncctl delete -q rel
run zncctl create -b "$work/loop" rel
check 'the bundle may be an option' grep -q "\"bundle\": \"$work/loop\"" <(zncctl state rel)
zncctl delete -q rel
cd "$work/loop" || exit 1
run zncctl create rel
check 'the bundle is the working directory by default' \
    grep -q "\"bundle\": \"$work/loop\"" <(zncctl state rel)
zncctl delete -q rel
cd / || exit 1

run zncctl create none /no/such/bundle
fails_with 'a bundle without config.json' 1 'OCI bundle config.json not exists'
check 'what the daemon said about it stands on standard error' \
    grep -q '^OCI bundle config.json not exists in /no/such/bundle\.$' "$work/err"

zncctl create web "$work/loop"
run zncctl start web
expect 'start returns while the program runs' 0 '' ''
check 'the started container runs' status_is web running
run zncctl delete -q web
fails_with 'a running container is not deleted' 3 'Container in use'
run zncctl kill web
expect 'kill prints the id' 0 web ''
check 'TERM is the default signal' eventually runs_out web
run zncctl kill web
expect 'kill of a stopped container does nothing' 0 web ''
zncctl delete -q web

zncctl create web "$work/loop"
zncctl start web
run zncctl delete -f web
expect 'delete --force of a running container' 0 web ''
check 'the program of the deleted container has ended' eventually not program_lives

for how in '-s KILL' '-s 9' '-s sigkill'; do
    zncctl create web "$work/loop"
    zncctl start -a web 2>/dev/null &
    starter=$!
    eventually program_lives
    # shellcheck disable=SC2086
    eventually zncctl kill -q $how web 2>/dev/null
    wait $starter
    check "a program killed by kill $how gives 128 plus the signal" test $? = 137
    zncctl delete -q web
done

make_bundle "$work/traps" /bin/sh -c \
    "trap 'echo usr1; exit 3' USR1; trap 'echo term; exit 5' TERM; echo ready; sleep $mark & wait; wait"
# trapping SENDER: runs the program, sends the signal, and sets its output and status.
trapping() {
    rm -f "$work/trapped"
    zncctl create trap "$work/traps"
    "$ZNCCTL" start -a trap >"$work/trapped" 2>&1 &
    starter=$!
    eventually grep -qs ready "$work/trapped"
    "$1"
    wait $starter
    status=$?
    out=$(<"$work/trapped")
    zncctl delete -qf trap
}
send_by_name() { eventually zncctl kill -q -s USR1 trap; }
trapping send_by_name
check 'USR1 by name reaches the program as USR1' test "$status/$out" = $'3/ready\nusr1'
send_by_number() { eventually zncctl kill -q -s 30 trap; }
trapping send_by_number
check "30 is the system's number of USR1" test "$status/$out" = $'3/ready\nusr1'
send_to_zncctl() { kill -s TERM "$starter"; }
trapping send_to_zncctl
check 'a waiting start hands its signals on' test "$status/$out" = $'5/ready\nterm'
for signal in HUP INT QUIT; do
    zncctl create web "$work/loop"
    "$ZNCCTL" start -a web 2>/dev/null &
    starter=$!
    # Once the signal can be sent, the daemon knows the program's process id.
    eventually program_lives && eventually zncctl kill -q -s 0 web
    kill -s $signal $starter
    wait $starter
    status=$?
    check "a waiting start ends as its program does by $signal" \
        test $status = $((128 + $(kill -l $signal)))
    zncctl delete -qf web
done

zncctl list >/dev/full 2>"$work/err"
check 'a table that cannot be written is a failure' \
    test "$?/$(<"$work/err")" = \
    '1/zncctl: error: standard output: No space left on device'

long=$(printf 'x%.0s' {1..254})
for id in "$long" $'two\nlines' ' ' -f '[a,b]'; do
    run zncctl create -- "$id" "$work/loop"
    expect "an id may be '${id:0:10}'" 0 '' ''
    run zncctl list
    check 'the id is listed on one line' test "$(wc -l <"$work/out")" = 2
    run zncctl delete -- "$id"
    expect 'the id is found again and printed on one line' 0 "${id//$'\n'/?}" ''
done
run zncctl create "${long}y" "$work/loop"
expect 'an id may have 255 bytes' 0 '' ''
run zncctl delete "$long"
expect 'only 254 bytes of an id of 255 are kept' 0 "$long" ''
for id in "xx$long" '' . .. a/b 'a\b'; do
    run zncctl create "$id" "$work/loop"
    fails_with "an id may not be '${id:0:10}'" 1 'Invalid parameter'
done

make_bundle "$work/many" /bin/sh -c "sleep $mark & sleep $mark & trap '' TERM; sleep $mark"
zncctl create many "$work/many"
zncctl start many
eventually program_lives
run zncctl kill --all -s KILL many
expect 'kill --all prints the id' 0 many ''
check 'kill --all reaches every process' eventually not program_lives
check 'the container is stopped then' eventually runs_out many
zncctl delete -q many

make_bundle "$work/noprog" /bin/no-such-program
zncctl create noprog "$work/noprog"
run zncctl start -a noprog
fails_with 'a program that is not there exits 127' 127 \
    "RTP spawn failed: /bin/no-such-program: there is no such program in the container's root"
zncctl delete -q noprog

zncctl create hello "$work/hello"
bash -c 'sleep 0.05 & sleep 1 & exec "$0" start -a hello' "$ZNCCTL" >/dev/null 2>&1
check 'children from before the exec do not count as the program' test $? = 7
zncctl delete -q hello

# Configurations that are too long for a reply of the daemon.
long_config() { # MEMBER TEXT: writes a config.json in which the member, a jq path, is the text
    jq --rawfile text <(head -c "$2" /dev/zero | tr '\0' x) "$1 = \$text" "$work/hello/config.json" >"$work/long/config.json"
}
make_bundle "$work/long"
long_config '.process.env[1]' 100000
run zncctl create long "$work/long"
check 'too much for the program is refused before the container is created' test "$status/$out" = 1/
check 'with the reason' grep -qE 'process.args and process.env are 1[0-9]{5} bytes long: the daemon passes on at most 65535' "$work/err"
check 'no container is left of it' test -z "$(zncctl list -q)"
run zncctl run --rm -b "$work/long"
check 'run refuses it, too' test "$status/$(grep -c 'bytes long' "$work/err")" = 125/1
long_config '.process.env[1]' 60000
run zncctl run --rm -b "$work/long"
expect 'what a reply holds is passed on' 7 hello wrong
long_config '.annotations.note' 100000
zncctl create long "$work/long"
run zncctl inspect long
check 'details that no reply holds are not printed' test "$status/$out/$(error_line)" = '4//long: No answer from the daemon'
check 'and the hint says why' grep -q '^zncctl: hint: it answers other requests: .*64 KiB' "$work/err"
run zncctl start -a long
check 'but the container can be used' test "$status" = 7
zncctl delete -q long

# Beginnings of ids.
"$ZNCCTL" run -b "$work/hello" >"$work/out" 2>&1 </dev/null
check 'a container without a name' test $? = 7
id=$(zncctl list -q)
check 'gets an id of 12 digits' grep -qE '^[0-9a-f]{12}$' <<<"$id"
run zncctl inspect "${id:0:4}"
check '4 of them select it' test "$status/$(grep -c "\"Id\": *\"$id\"" "$work/out")" = 0/1
run zncctl state "${id:0:3}"
check 'fewer do not' test "$status" = 2
run zncctl state "${id:1:8}"
check 'nor digits in the middle' test "$status" = 2
zncctl create "${id:0:5}" "$work/hello"
run zncctl delete "${id:0:5}"
expect 'a name selects its own container first' 0 "${id:0:5}" ''
other=${id:0:8}$(printf '%04x' $((0x${id:8} ^ 1)))
zncctl create "$other" "$work/hello"
run zncctl delete "${id:0:8}"
check 'a beginning of two ids is refused' test "$status/$out" = 1/
check 'and both are named' grep -qE ": several ids begin like this: ($id, $other|$other, $id)\$" "$work/err"
run zncctl delete "$other" "${id:0:8}"
check 'with one of them selected by its id, too' test "$status" = 1
zncctl delete -q "$other"
zncctl create "$id-web" "$work/hello"
run zncctl rm "${id:0:11}"
expect 'other names do not count' 0 "$id" ''
run zncctl state "$id-"
check 'and cannot be shortened' test "$status" = 2
zncctl delete -q "$id-web"

id=$'an id\twith blanks'
zncctl create "$id" "$work/hello"
run zncctl list
check 'control characters in an id do not reach the terminal' \
    grep -q '^an id?with blanks' "$work/out"
zncctl delete -q "$id"

check 'no overlay device is left' test "$(overlay_mounts)" = 0
check 'no container directory is left' test -z "$(ls "$ZNC_BASE/containers")"
finish
