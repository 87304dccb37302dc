#!/usr/bin/env bash
# systemd_machine.sh - tests zncrun --systemd-cgroup where systemd is the first process. Run by
# scripts/vm-systemd-test.sh in a virtual machine.
# shellcheck disable=SC2016
set -u
# shellcheck source=../../support/checks.sh
. /tests/checks.sh
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
work=/tmp/work
mkdir -p $work/web/rootfs/{bin,dev,proc,sys,tmp}
cp /tests/busybox $work/web/rootfs/bin/
for applet in sh sleep cat mknod true; do ln -s busybox $work/web/rootfs/bin/$applet; done
run() {
    status=0
    timeout -k 5 100 /tests/zncrun --root $work/state "$@" >$work/out 2>$work/err </dev/null || status=$?
    out=$(<$work/out)
}
explain_failure() {
    printf '  status %s\n' "$status"
    sed 's/^/  out: /' $work/out
    sed 's/^/  err: /' $work/err
}
expect() { check "$1" test "$status/$out" = "$2/$3"; }
state_is() { [[ $(/tests/zncrun --root $work/state state web | jq -r .status) == "$1" ]]; }
v2() { [[ -e /sys/fs/cgroup/cgroup.controllers ]]; }
slice=machine-znt.slice
unit=web-one.scope
group=machine.slice/$slice/$unit
property() { systemctl show -p "$1" --value $unit; }
is_property() { [[ $(property "$1") == "$2" ]]; }
# control V2 V1 VALUE: what a control file of the group has. "-": there is none.
control() {
    if v2; then
        [[ $1 == - || $(cat /sys/fs/cgroup/$group/"$1") == "$3" ]]
    else
        [[ $2 == - || $(cat /sys/fs/cgroup/*/$group/"$2" 2>/dev/null | head -1) == "$3" ]]
    fi
}
remains() { [[ -n $(find /sys/fs/cgroup -name "$1") ]]; }
unit_remains() { [[ -n $(systemctl list-units --all --plain --no-legend "$1") ]]; }
in_group() { [[ $(grep -vc ":/$group\$" "/proc/$1/cgroup") == 0 ]]; }
limits_hold() { # WHEN MEMORY PIDS
    check "$1: the limit of memory" control memory.max memory.limit_in_bytes "$2"
    check "$1: the limit of processes" control pids.max pids.max "$3"
    check "$1: the quota" control cpu.max - '25000 50000'
    check "$1: the quota of v1" control - cpu.cfs_quota_us 25000
    check "$1: the share" control cpu.weight cpu.shares "$(v2 && printf 20 || printf 512)"
    check "$1: the set of processors" control cpuset.cpus cpuset.cpus 0
    check "$1: the swap" control memory.swap.max - 33554432
    run exec web sh -c '[ -e /tmp/log ] || mknod /tmp/log c 1 11; cat /tmp/log'
    check "$1: a device that is not allowed is refused" grep -q 'not permitted' $work/err
    run exec web sh -c 'cat /dev/null && echo x >/dev/null'
    expect "$1: the null device is allowed" 0 ''
}

jq -n --arg path $slice:web:one '{ociVersion: "1.0.2", root: {path: "rootfs"}, hostname: "box",
    process: {args: ["sh", "-c", "while :; do sleep 1; done"], cwd: "/", env: ["PATH=/bin"], user: {uid: 0, gid: 0},
              capabilities: {bounding: ["CAP_MKNOD"], effective: ["CAP_MKNOD"], permitted: ["CAP_MKNOD"]}},
    mounts: [{destination: "/proc", type: "proc", source: "proc"}, {destination: "/dev", type: "tmpfs", source: "tmpfs"}],
    annotations: {"org.systemd.property.TimeoutStopUSec": "uint64 7000000"},
    linux: {namespaces: ["pid", "mount", "ipc", "uts", "network", "cgroup"] | map({type: .}), cgroupsPath: $path,
            resources: {memory: {limit: 67108864, swap: 100663296}, pids: {limit: 50},
                        cpu: {shares: 512, quota: 25000, period: 50000, cpus: "0"}}}}' >$work/plain.json
v2 || { # a machine without accounting of swap refuses its limit
    jq 'del(.linux.resources.memory.swap)' $work/plain.json >$work/v1.json && mv $work/v1.json $work/plain.json
}
cp $work/plain.json $work/web/config.json
status=0
: >$work/out
: >$work/err
printf 'systemd %s, cgroup %s\n' "$(systemctl --version | head -1)" "$(v2 && printf v2 || printf v1)"

run --systemd-cgroup create --bundle $work/web --pid-file $work/pid web
expect 'create' 0 ''
check 'the scope is active' is_property ActiveState active
check 'its slice' is_property Slice $slice
check 'its group' is_property ControlGroup /$group
check 'its groups are delegated' is_property Delegate yes
check 'an annotation' is_property TimeoutStopUSec 7s
check 'systemd knows the limit of memory' is_property "$(v2 && printf MemoryMax || printf MemoryLimit)" 67108864
check 'systemd knows the limit of processes' is_property TasksMax 50
check 'systemd knows the quota' is_property CPUQuotaPerSecUSec 500ms
check 'the process is in the group in all hierarchies' in_group "$(<$work/pid)"
check 'the state' state_is created
run start web
expect 'start' 0 ''
check 'it runs' state_is running
limits_hold 'after the start' 67108864 50
systemctl daemon-reload
limits_hold 'after daemon-reload' 67108864 50
run update --memory 50331648 --pids-limit 40 web
expect 'update' 0 ''
check 'systemd knows the new limit' is_property TasksMax 40
systemctl daemon-reload
check 'after update and daemon-reload: memory' control memory.max memory.limit_in_bytes 50331648
check 'after update and daemon-reload: processes' control pids.max pids.max 40
run --systemd-cgroup create --bundle $work/web second
check 'a second container cannot have the scope' test "$status" = 1
check 'the reason' grep -q 'systemd: cannot start web-one.scope: ' $work/err
check 'the first one lives on' state_is running
run kill web KILL
check 'killed' eventually state_is stopped
run delete web
expect 'delete' 0 ''
check 'no scope is left' not unit_remains $unit
check 'no group is left' not remains $unit

# A program that ends by itself, and leaves others.
jq '.process.args = ["sh", "-c", "sleep 1000 & exec sh -c true"]' $work/plain.json >$work/web/config.json
run --systemd-cgroup run --bundle $work/web web
expect 'run' 0 ''
check 'no scope is left by run' not unit_remains $unit
check 'no group is left by run' not remains $unit

# Killed while it creates.
printf '#!/bin/sh\necho $$ >/tmp/work/hook\nexec sleep 100\n' >$work/hook.sh
chmod +x $work/hook.sh
jq '.hooks.createRuntime = [{path: "/tmp/work/hook.sh"}]' $work/plain.json >$work/web/config.json
/tests/zncrun --root $work/state --systemd-cgroup create --bundle $work/web web </dev/null >/dev/null 2>&1 &
creator=$!
check 'create runs a hook' eventually test -s $work/hook
kill -KILL $creator
wait $creator 2>/dev/null
kill -KILL "$(<$work/hook)"
check 'systemd removes the scope whose creator was killed' eventually not unit_remains $unit
run delete --force web
expect 'force deletes it' 0 ''
check 'no group is left by it' not remains $unit
check 'no state is left' test -z "$(ls -A $work/state)"
run --systemd-cgroup create --bundle $work/web --config $work/plain.json web
expect 'the name can be used again' 0 ''
run delete --force web
expect 'force deletes a created container' 0 ''
check 'no scope is left by force' not unit_remains $unit
check 'no unit has failed' test -z "$(systemctl list-units --all --state=failed --plain --no-legend 'web*' 'zncrun*')"

finish_checks
printf 'systemd_machine ended with %d\n' $?
