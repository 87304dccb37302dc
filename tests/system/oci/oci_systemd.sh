#!/usr/bin/env bash
# Tests of zncrun --systemd-cgroup with a program that plays systemd on a message bus of its own
# (fake_systemd.cpp). scripts/vm-systemd-test.sh tries systemd itself.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"
if ! command -v dbus-daemon >/dev/null; then
    printf 'skipped: dbus-daemon is not installed\n'
    exit 77
fi
top=/zn-systemd-$$
slice=znt$$-sub.slice
calls=$work/calls
cat >"$work/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$work/bus</listen>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*" eavesdrop="true"/> <allow eavesdrop="true"/>
  </policy>
</busconfig>
EOF
timeout 500 dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile >"$work/bus.log" 2>&1 &
services=($!)
trap 'kill "${services[@]}" 2>/dev/null' EXIT
eventually test -S "$work/bus"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
start_systemd() {
    timeout 500 "$FAKE_SYSTEMD" "$DBUS_SYSTEM_BUS_ADDRESS" "$calls" "$top" >"$work/systemd.log" 2>&1 &
    systemd=$!
    services+=("$systemd")
    eventually grep -qx ready "$calls" || {
        cat "$work/bus.log" "$work/systemd.log"
        exit 1
    }
}
start_systemd
driven() { run zncrun --systemd-cgroup "$@"; }
# said WORDS: that systemd was asked for this.
said() { grep -qxF -- "$1" "$calls"; }
group=$top/znt$$.slice/$slice
in_group() { # PID UNIT
    [[ $(grep -vc ":$group/$2\$" "/proc/$1/cgroup") == 0 ]]
}
remains() { compgen -G "/sys/fs/cgroup/*$group/$1" >/dev/null || [[ -d /sys/fs/cgroup$group/$1 ]]; }
# control FILE UNIT: the first line of a control file.
control() { cat /sys/fs/cgroup/*"$group/$2/$1" "/sys/fs/cgroup$group/$2/$1" 2>/dev/null | head -1; }
v2() { [[ -e /sys/fs/cgroup/cgroup.controllers ]]; }

# A job that never ends. Its failure is looked at in the end, because systemd gets some time.
make_bundle silent sleep 100
change silent '.linux.cgroupsPath = "'"$slice"':silent:'"$me"'"'
{
    zncrun --systemd-cgroup create --bundle "$work/silent" "$me-silent" >/dev/null 2>"$work/silent.err" </dev/null
    printf '%s' "$?" >"$work/silent.status"
} &

# Create, start, state, delete.
make_bundle web sh -c 'trap "exit 5" TERM; while :; do sleep 0.05; done'
change web '.linux.cgroupsPath = "'"$slice"':web:'"$me"'" | .linux.resources = {
    memory: {limit: 67108864, reservation: 33554432}, cpu: {shares: 512, quota: 25000, period: 50000},
    pids: {limit: 50}} | .annotations["org.systemd.property.TimeoutStopSec"] = "7"
    | .annotations["org.systemd.property.CollectMode"] = "'"'inactive-or-failed'"'" | .annotations.other = "x"
    | .linux.namespaces += [{type: "cgroup"}]'
plain=$(<"$work/web/config.json")
unit=web-$me.scope
driven create --bundle "$work/web" --pid-file "$work/pid" "$me-web"
expect 'create' 0 ''
pid=$(<"$work/pid")
check 'the scope is started with the first process' said "start $unit PIDs=$pid"
check 'a unit of the same name is not replaced' said "start $unit mode=fail"
check 'the slice is that of the configuration' said "start $unit Slice=$slice"
check 'the groups below are the container'"'"'s' said "start $unit Delegate=true"
check 'the scope does not depend on the shutdown' said "start $unit DefaultDependencies=false"
for name in CPU Memory Tasks; do
    check "statistics: $name" said "start $unit ${name}Accounting=true"
done
check 'the limit of processes is a property' said "start $unit TasksMax=50"
check 'the quota is a property' said "start $unit CPUQuotaPerSecUSec=500000"
check 'the period is a property' said "start $unit CPUQuotaPeriodUSec=50000"
if v2; then
    check 'the limit of memory is a property' said "start $unit MemoryMax=67108864"
    check 'the reservation is a property' said "start $unit MemoryLow=33554432"
    check 'the share is a property' said "start $unit CPUWeight=20"
    check 'devices are no property' not grep -q Device "$calls"
else
    check 'the limit of memory is a property' said "start $unit MemoryLimit=67108864"
    check 'the share is a property' said "start $unit CPUShares=512"
    check 'devices are denied by default' said "start $unit DevicePolicy=strict"
    check 'devices that every container has are allowed' \
        grep -q "^start $unit DeviceAllow=.*/dev/char/1:3 rwm .*char-pts rwm" "$calls"
    check 'a limit is in the control file' test "$(control memory.limit_in_bytes "$unit")" = 67108864
fi
check 'an annotation in seconds is a property in microseconds' said "start $unit TimeoutStopUSec=7000000"
check 'an annotation is a property' said "start $unit CollectMode=inactive-or-failed"
check 'a limit that systemd was told is in the control file' test "$(control pids.max "$unit")" = 50
check 'the process is in the group in all hierarchies' in_group "$pid" "$unit"
check 'the state names the scope' jq -e --arg unit "$unit" '.systemdScope == $unit' "$work/state/$me-web/state.json"
run zncrun start "$me-web"
expect 'start' 0 ''
check 'it runs' is_state "$me-web" running
run zncrun exec "$me-web" cat /proc/self/cgroup
check 'a further program is in the group, the root of its namespace' \
    awk -F: '$3 != "/" { bad = 1 } END { exit bad }' "$work/out"
driven create --bundle "$work/web" "$me-second"
refused 'a scope that exists' "systemd: cannot start $unit: Unit $unit already exists."
check 'the first container lives on' is_state "$me-web" running
check 'the refused one leaves nothing' test ! -e "$work/state/$me-second"

# Update.
run zncrun update --memory 33554432 --pids-limit 40 --cpu-quota 10000 "$me-web"
expect 'update' 0 ''
check 'update changes the property until the stop' said "set $unit TasksMax=40"
check 'update changes the control file' test "$(control pids.max "$unit")" = 40
check 'a new quota is for the period that the scope has' said "set $unit CPUQuotaPerSecUSec=200000"
run zncrun update --pids-limit 40x "$me-web"
refused 'an update with no number' 'not a number'
cp "$calls" "$work/before"
run zncrun update --cpuset-cpus 99999 "$me-web"
refused 'an update that the kernel refuses' 'cpus'
check 'systemd is not told of it' cmp -s "$calls" "$work/before"

# Pause, resume, kill, delete: without the option, by the state.
run zncrun pause "$me-web"
check 'paused' is_state "$me-web" paused
run zncrun resume "$me-web"
run zncrun kill "$me-web" TERM
check 'the signal ends the program' eventually is_state "$me-web" stopped
run zncrun delete "$me-web"
expect 'delete' 0 ''
check 'delete stops the scope' said "stop $unit"
check 'the group is gone' not remains "$unit"

# A scope whose container has ended is free for another one, also if its group was left frozen. Deleting the
# first container does not stop it.
jq '.process.args = ["true"]' <<<"$plain" >"$work/web/config.json"
driven create --bundle "$work/web" "$me-old"
run zncrun start "$me-old"
check 'the first container ends' eventually is_state "$me-old" stopped
if ! v2; then printf FROZEN >"/sys/fs/cgroup/freezer$group/$unit/freezer.state"; fi
printf '%s' "$plain" >"$work/web/config.json"
driven create --bundle "$work/web" "$me-new"
expect 'another container gets the scope' 0 ''
: >"$calls"
run zncrun delete "$me-old"
expect 'the first one is deleted' 0 ''
check 'its scope is not stopped' not grep -q . "$calls"
check 'the other one lives on' is_state "$me-new" created
run zncrun delete --force "$me-new"
check 'the scope is stopped with its own container' said "stop $unit"

# Default names; user and PID namespaces, whose first process is created by another one.
given 'del(.linux.cgroupsPath)' true
run zncrun --systemd-cgroup run --bundle "$work/web" "$me-web"
expect 'a container without a path' 0 ''
check 'its slice is that of the system' grep -q "^start zncrun-$me-web\..*\.scope Slice=system.slice" "$calls"
jq '.linux.namespaces += [{type: "user"}] | .linux.uidMappings = [{containerID: 0, hostID: 100000, size: 1000}]
    | .linux.gidMappings = .linux.uidMappings | .process.args = ["cat", "/proc/self/cgroup"]' <<<"$plain" >"$work/web/config.json"
chmod 755 "$work" "$work/web" "$work/web/rootfs"
run zncrun --cgroup-manager=systemd run --bundle "$work/web" "$me-web"
check 'a container with a user namespace' test "$status" = 0
check 'its group is the root of its cgroup namespace' \
    awk -F: '$3 != "/" { bad = 1 } END { exit NR == 0 || bad }' "$work/out"

# Names that cannot be units are refused, by name, before systemd is asked.
cp "$calls" "$work/before"
for path in /a/b a:b a:b:c:d system.slice:web: 'system.slice:../x:y' 'system.slice:a/b:y' 'nothing:a:b' \
    '-a.slice:a:b' 'a-.slice:a:b' 'a--b.slice:a:b' '../x.slice:a:b' 'x@y.slice:a:b' 'system.slice:a:b@c' \
    'system.slice:a:b.slice' $'system.slice:a:b\nc' "system.slice:a:$(printf 'x%.0s' {1..260})"; do
    jq --arg path "$path" '.linux.cgroupsPath = $path' <<<"$plain" >"$work/web/config.json"
    driven create --bundle "$work/web" "$me-web"
    refused "the path ${path:0:40}" linux.cgroupsPath
done
for value in "'open" 'word' '1 2' '[1]' "['a'" '' 'uint64 -1' '{}' "'a' 'b'"; do
    jq --arg value "$value" '.annotations["org.systemd.property.Description"] = $value' <<<"$plain" >"$work/web/config.json"
    driven create --bundle "$work/web" "$me-web"
    refused "an annotation with the value $value" org.systemd.property.Description
done
for name in Slice PIDs Delegate 'A=b' ''; do
    jq --arg name "org.systemd.property.$name" '.annotations[$name] = "true"' <<<"$plain" >"$work/web/config.json"
    driven create --bundle "$work/web" "$me-web"
    refused "the annotation $name" "org.systemd.property.$name"
done
check 'systemd is not asked' cmp -s "$calls" "$work/before"
printf '%s' "$plain" >"$work/web/config.json"
run zncrun create --bundle "$work/web" "$me-web"
refused 'a slice without the option' 'linux.cgroupsPath: names a systemd slice, which needs --systemd-cgroup'

# What systemd refuses.
refuses() { # NAME FILTER WORDS UNIT
    jq "$2" <<<"$plain" >"$work/web/config.json"
    driven create --bundle "$work/web" "$me-web"
    refused "$1" "$3"
    check "$1: nothing is left" test ! -e "$work/state/$me-web" -a -z "$(compgen -G "/sys/fs/cgroup/*$group/$4")"
}
refuses 'a property that systemd does not know' '.annotations["org.systemd.property.Nonsense"] = "1"' \
    "systemd: cannot start $unit: Cannot set property Nonsense, or unknown property." "$unit"
refuses 'a job that fails' '.linux.cgroupsPath |= sub("web"; "failing")' 'the result of the job is "failed"' \
    "failing-$me.scope"
check 'a scope that failed is stopped' said "stop failing-$me.scope"
refuses 'a scope in another group' '.linux.cgroupsPath |= sub("web"; "lost")' \
    "the control group of lost-$me.scope is \"/elsewhere\"" "lost-$me.scope"
refuses 'a program that does not exist' '.process.args = ["nosuch"]' 'executable file not found' "$unit"
refuses 'a limit that the kernel refuses' '.linux.resources.cpu.cpus = "99999"' 'cpus' "$unit"

# Killed while it creates: only what delete --force clears remains.
printf '#!/bin/sh\necho $$ >%s/hook.pid\nexec sleep 100\n' "$work" >"$work/hook"
chmod +x "$work/hook"
jq --arg hook "$work/hook" '.hooks.createRuntime = [{path: $hook}]' <<<"$plain" >"$work/web/config.json"
"$ZNCRUN" --root "$work/state" --systemd-cgroup create --bundle "$work/web" "$me-web" \
    </dev/null >/dev/null 2>&1 &
creator=$!
check 'create runs a hook' eventually test -s "$work/hook.pid"
kill -KILL "$creator"
wait "$creator" 2>/dev/null # says that it was killed
run zncrun delete --force "$me-web"
expect 'force deletes a container whose creator was killed' 0 ''
check 'its group is gone' not remains "$unit"
kill -KILL "$(<"$work/hook.pid")"

# systemd, or the bus, is gone.
printf '%s' "$plain" >"$work/web/config.json"
driven create --bundle "$work/web" "$me-web"
expect 'create again' 0 ''
kill "$systemd"
wait "$systemd" 2>/dev/null
run zncrun --log "$work/log" delete --force "$me-web"
expect 'a container is deleted although systemd is gone' 0 ''
check 'the log says so' grep -q "systemd: cannot" "$work/log"
check 'the group is gone' not remains "$unit"
driven create --bundle "$work/web" "$me-web"
refused 'create without systemd' 'systemd: '
DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/absent driven create --bundle "$work/web" "$me-web"
refused 'create without a bus' 'systemd: '
for directory in "$work/absent" "$work;x"; do
    run env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR="$directory" timeout 60 unshare --user --map-root-user \
        "$ZNCRUN" --root "$work/state" --systemd-cgroup create --bundle "$work/web" "$me-web"
    refused "create in a user namespace with the runtime directory ${directory#"$work"}" 'bus of the user'
done
check 'nothing is left' test ! -e "$work/state/$me-web"

eventually test -s "$work/silent.status"
status=$(<"$work/silent.status")
out=
cp "$work/silent.err" "$work/err"
refused 'a job that never ends' 'systemd did not do so in time'
find /sys/fs/cgroup -depth -type d -path "*$top*" -exec rmdir {} + 2>/dev/null
check 'no group is left' test -z "$(find /sys/fs/cgroup -maxdepth 2 -name "${top#/}")"
finish
