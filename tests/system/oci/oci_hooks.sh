#!/usr/bin/env bash
# Tests of the hooks that run inside a container: createContainer and startContainer.
# shellcheck source=oci_lib.sh disable=SC2016
. "$(dirname "$0")/oci_lib.sh"

make_bundle web true
chmod 1777 "$work/web/rootfs/tmp"
plain=$(<"$work/web/config.json")
hook() { # SCRIPT [MEMBERS]: a hook that runs a script, as JSON
    jq -nc --arg script "$1" '{path: "/bin/sh", args: ["sh", "-c", $script], env: ["PATH=/bin:/usr/bin"]} + '"${2:-{\}}"
}
root=$work/web/rootfs

# createContainer: a program of the host, in the container's namespaces.
given ".hooks.createContainer = [$(hook "cat >$work/state.json; readlink /proc/self/ns/mnt /proc/self/ns/uts >$work/ns
    ls $work/web/config.json; ls -d $root/proc/self; mkdir $root/mnt/made; mount -t tmpfs hook $root/mnt/made; hostname")]" \
    sh -c 'grep -o "hook /mnt/made tmpfs" /proc/mounts; ls -d /mnt/made'
check 'a container with a createContainer hook' test "$status" = 0
check 'the hook sees the host and the mounts of the container' \
    test "$err" = "$work/web/config.json"$'\n'"$root/proc/self"$'\nbox'
check 'what it mounts is in the container' test "$out" = $'hook /mnt/made tmpfs\n/mnt/made'
check 'it reads the state' test "$(jq ".id == \"$me-web\" and .pid > 1 and .status == \"creating\"" "$work/state.json")" = true
check 'it is in namespaces of the container' \
    not grep -qxF -e "$(readlink /proc/self/ns/mnt)" -e "$(readlink /proc/self/ns/uts)" "$work/ns"
check 'the host does not see its mounts' not grep -q "$root/mnt/made" /proc/self/mountinfo
given ".hooks.createContainer = [$(hook "touch $root/etc/by-hook")] | .root.readonly = true" \
    sh -c 'ls /etc/by-hook; touch /etc/other || echo read-only'
expect 'the hook can change a root that becomes read-only' 0 $'/etc/by-hook\nread-only'
given ".hooks.createContainer = [$(hook 'exit 0')] | .linux.rootfsPropagation = \"shared\"" \
    sh -c "ls -d $work; grep ' / / \\| / ' /proc/self/mountinfo | head -n 1 | grep -o shared"
check 'the program sees nothing of the host, in a root with propagation' test "$out" = shared
given ".hooks.createContainer = [$(hook 'pwd >&2')]" true
check 'its working directory is the root of the container' test "$err" = "$root"
given ".hooks.createContainer = [$(hook 'exit 3')] | .hooks.poststop = [$(hook "touch $work/stopped")]" true
refused 'a createContainer hook that fails' 'error running hook /bin/sh (createContainer): exit status 3'
check 'poststop hooks run then' test -e "$work/stopped"
given ".hooks.createContainer = [$(hook 'sleep 100' '{timeout: 1}')]" true
refused 'a createContainer hook that takes too long' 'longer than 1 seconds'
given ".hooks.createContainer = [$(hook 'kill -SYS $$')]" true
refused 'a hook that a signal ends' 'error running hook /bin/sh (createContainer): signal: bad system call'
given '.hooks.createContainer = [{path: "/bin/nosuch"}]' true
refused 'a createContainer hook that does not exist' '/bin/nosuch'
given '.hooks.createContainer = [{path: "bin/true"}]' true
refused 'a path that is not absolute' 'hooks.createContainer[0].path: not an absolute path'

given ".hooks.createRuntime = [$(hook 'kill -KILL "$(jq .pid)"')]" true
refused 'a first process that is killed meanwhile' "the container's first process was killed by signal 9"

# All that are of the creation run before the program is looked up, in their order.
given ".hooks = {createContainer: [$(hook "echo third >>$work/order; printf '#!/bin/sh\\necho late\\n' >$root/bin/late; chmod 755 $root/bin/late")],
    createRuntime: [$(hook "echo second >>$work/order")], prestart: [$(hook "echo first >>$work/order")]}" late
check 'the order of the hooks' test "$(tr '\n' ' ' <"$work/order")" = 'first second third '
expect 'the program may be made by a hook' 0 late

# startContainer: a program of the container, confined as it is.
given ".process.user = {uid: 1000, gid: 1000} | .process.noNewPrivileges = true
    | .hooks.startContainer = [$(hook 'cat >/tmp/state; id -u; grep NoNewPrivs /proc/self/status; cat /proc/1/comm; echo $A' \
    '{env: ["A=b"]}')]" echo program
expect 'a startContainer hook' 0 program
check 'has the rights of the program' test "$err" = $'1000\nNoNewPrivs:\t1\nzn-init\nb'
given '.hooks.startContainer = [{path: "/bin/env", args: ["env"]}]' true
expect 'it gets nothing of the environment of the caller' 0 ''
rm -f "$root/tmp/state"
given ".hooks.startContainer = [$(hook 'cat >/tmp/state; echo more >>/proc/self/fd/0; true')]" cat /tmp/state
check 'the startContainer hook reads the state' grep -q "\"id\":\"$me-web\"" "$work/out"
check 'the startContainer hook cannot change its input' test "$(grep -c more "$work/out")" = 0
given ".hooks.startContainer = [$(hook 'exit 7')] | .hooks.poststop = [$(hook "touch $work/stopped2")]" echo program
refused 'a startContainer hook that fails' 'error running hook /bin/sh (startContainer): exit status 7'
check 'the program does not run' not grep -q program "$work/out"
check 'poststop hooks run' test -e "$work/stopped2"
given ".hooks.startContainer = [$(hook 'sleep 100' '{timeout: 1}')]" true
refused 'a startContainer hook that takes too long' 'longer than 1 seconds'
given ".hooks.startContainer = [{path: \"$work/outside\"}]" true
refused 'the path of a startContainer hook is resolved in the container' 'no such file'

# What hooks inherit.
kinds='prestart createRuntime createContainer startContainer poststart poststop'
listing=$(for kind in $kinds; do hook "cat >/dev/null; echo $kind; ls /proc/self/fd; echo end" | jq -c "{$kind: [.]}"; done)
exec 3</dev/null 4</dev/null 200</dev/null
printf '%s' "$plain" >"$work/web/config.json"
change web ".hooks = $(jq -sc add <<<"$listing")"
program web echo program
run zncrun run --preserve-fds 2 --bundle "$work/web" "$me-web"
exec 3<&- 4<&- 200<&-
expect 'what hooks write is not among what the program writes' 0 program
# The descriptor 3 is that by which ls reads the directory.
check 'hooks have the standard streams only' \
    test "$(tr '\n' ' ' <"$work/err")" = "$(for kind in $kinds; do printf '%s 0 1 2 3 end ' "$kind"; done)"
for kind in createRuntime createContainer; do
    given ".hooks.$kind = [$(hook "cat >/dev/null; sleep $mark & sleep $mark" '{timeout: 1}')]" true
    refused "a $kind hook with children that takes too long" 'longer than 1 seconds'
    check "its children end, too ($kind)" eventually not pgrep -f "sleep $mark"
done
given ".hooks.poststop = [$(hook "cat >/dev/null; sleep $mark & sleep $mark" '{timeout: 1}')]" true
expect 'a poststop hook that takes too long is no failure' 0 ''
check 'its children end, too' eventually not pgrep -f "sleep $mark"
for signal in INT TERM HUP; do
    printf '%s' "$plain" >"$work/web/config.json"
    change web ".hooks.createRuntime = [$(hook "cat >/dev/null; sleep $mark & sleep $mark")]"
    env --default-signal="$signal" "$ZNCRUN" --root "$work/state" run --bundle "$work/web" "$me-web" \
        >/dev/null 2>"$work/err" </dev/null &
    runner=$!
    check 'a hook runs' eventually pgrep -f "sleep $mark"
    kill -"$signal" "$runner"
    status=0
    wait "$runner" || status=$?
    refused "SIG$signal while a hook runs" "signal $(kill -l "$signal")"
    check "ends the hook and its children (SIG$signal)" eventually not pgrep -f "sleep $mark"
done

# A container whose start failed is stopped.
printf '%s' "$plain" >"$work/web/config.json"
change web ".hooks.startContainer = [$(hook 'exit 7')]"
run zncrun create --bundle "$work/web" "$me-web"
expect 'create does not run startContainer hooks' 0 ''
run zncrun start "$me-web"
refused 'start does' '(startContainer)'
check 'the container has stopped after the failed hook' is_state "$me-web" stopped
run zncrun delete "$me-web"
expect 'the stopped container can be deleted' 0 ''
finish
