#!/usr/bin/env bash
# rootless_machine_user.sh - tests podman with zncrun and the user's service manager, as that user. Run by
# rootless_machine.sh.
# shellcheck disable=SC2016
set -u
# shellcheck source=../../support/checks.sh
. /tests/checks.sh
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
work=$HOME/work
mkdir -p "$work/root"/{bin,dev,proc,sys,tmp} ~/.config/containers
# No namespace of the network: slirp4netns is not installed. No journal runs, and /home is a tmpfs without the attributes
# that overlays need.
cat >~/.config/containers/containers.conf <<'CONF'
[containers]
netns = "none"
log_driver = "k8s-file"
[engine]
runtime = "zncrun"
runtime_supports_nocgroup = ["zncrun"]
cgroup_manager = "systemd"
events_logger = "file"
[engine.runtimes]
zncrun = ["/tests/zncrun"]
CONF
printf '{"default": [{"type": "insecureAcceptAnything"}]}\n' >~/.config/containers/policy.json
printf '[storage]\ndriver = "vfs"\n' >~/.config/containers/storage.conf

run() {
    status=0
    timeout -k 5 100 "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
    out=$(<"$work/out")
}
explain_failure() {
    printf '  status %s\n' "$status"
    sed 's/^/  out: /' "$work/out"
    sed 's/^/  err: /' "$work/err"
}
expect() { check "$1" test "$status/$out" = "$2/$3"; }
scope_of() { printf 'libpod-%s.scope' "$(podman inspect --format '{{.ID}}' "$1")"; }
property() { systemctl --user show -p "$2" --value "$(scope_of "$1")"; }
is_property() { [[ $(property "$1" "$2") == "$3" ]]; }
state_is() { [[ $(podman inspect --format '{{.State.Status}}' "$1") == "$2" ]]; }
scopes() { systemctl --user list-units --all --plain --no-legend 'libpod*.scope'; }
file_of() { cat "/sys/fs/cgroup$(property "$1" ControlGroup)/$2"; }
file_is() { [[ $(file_of "$1" "$2") == "$3" ]]; }
limits_hold() { # NAME WHEN
    check "$2: the limit of memory" file_is "$1" memory.max 67108864
    check "$2: the limit of processes" file_is "$1" pids.max 30
    check "$2: the quota" file_is "$1" cpu.max '50000 100000'
}
limits=(--memory 64m --pids-limit 30 --cpus 0.5)

status=0
: >"$work/out"
: >"$work/err"
cp /tests/busybox "$work/root/bin"
for applet in sh sleep cat echo ps; do ln -s busybox "$work/root/bin/$applet"; done
check 'this is an ordinary user' test "$(id -u)" -ne 0
run bash -c 'tar -C "$1" -c . | podman import - box' - "$work/root"
check 'an image' test "$status" -eq 0
run podman info --format '{{.Host.CgroupManager}} {{.Host.CgroupsVersion}} {{.Host.Security.Rootless}} {{.Host.OCIRuntime.Name}}'
expect 'podman is rootless, with systemd and zncrun' 0 'systemd v2 true zncrun'

run podman run --rm box echo hello
expect 'run' 0 hello
run podman run --rm box sh -c 'exit 7'
expect 'the status of the program' 7 ''
run podman run --rm "${limits[@]}" box sh -c 'cd /sys/fs/cgroup && cat memory.max pids.max cpu.max'
expect 'the limits inside' 0 $'67108864\n30\n50000 100000'

run podman run -d --name web "${limits[@]}" box sh -c 'echo up; while :; do sleep 1; done'
check 'run in the background' test "$status" -eq 0
check 'it runs' eventually state_is web running
check 'the scope is one of the user' is_property web ActiveState active
check 'the group is below that of the user' grep -q "^/user.slice/user-$(id -u).slice/user@$(id -u).service/" <<<"$(property web ControlGroup)"
check 'systemd knows the limit of memory' is_property web MemoryMax 67108864
check 'systemd knows the limit of processes' is_property web TasksMax 30
limits_hold web 'after the start'
systemctl --user daemon-reload
limits_hold web 'after daemon-reload'
run podman exec web cat /proc/self/cgroup
check 'exec enters the group' test "$status" -eq 0
run podman top web comm
check 'top' grep -q sleep "$work/out"
run podman stats --no-stream --format '{{.PIDs}}' web
check 'stats' grep -qx '[1-9][0-9]*' "$work/out"
run podman logs web
expect 'logs' 0 up
run podman pause web
check 'pause' test "$status" -eq 0
check 'it is frozen' file_is web cgroup.freeze 1
run podman unpause web
check 'unpause' test "$status" -eq 0
check 'it is thawed' file_is web cgroup.freeze 0
run podman update --memory 48m web
check 'update' test "$status" -eq 0
check 'the new limit' file_is web memory.max 50331648
run podman stop --time 1 web
check 'stop' test "$status" -eq 0
check 'no scope is left of it' eventually test -z "$(scopes)"
run podman start web
check 'start again' test "$status" -eq 0
check 'it runs again' eventually state_is web running
limits_hold web 'after the second start'
run podman rm --force --time 0 web
check 'rm' test "$status" -eq 0

run podman run --rm --user 1000:1000 box sh -c 'cat /proc/self/status | grep ^Uid'
check 'a user of the image' grep -q '1000.*1000' "$work/out"
run podman run --rm --cgroups disabled box echo none
expect 'without a control group' 0 none
run podman run --rm box /bin/missing
check 'a program that is missing: the status' test "$status" -eq 127
run podman pod create --name pair --infra=false
check 'a pod' test "$status" -eq 0
run podman run --rm --pod pair box echo inside
expect 'a container of the pod' 0 inside
run podman pod rm --force pair
check 'the pod is removed' test "$status" -eq 0
no_scope() { [[ -z $(scopes) ]]; }
check 'no scope is left' eventually no_scope
check 'no unit has failed' test -z "$(systemctl --user list-units --all --state=failed --plain --no-legend 'libpod*')"

finish_checks
