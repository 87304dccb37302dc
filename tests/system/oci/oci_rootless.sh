#!/usr/bin/env bash
# Tests of zncrun without the rights of root: as root of the user namespace of an ordinary user, as podman runs it.
# The script runs itself again as that user, once for each kind of namespace; the users are known in this test only.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317,SC2154
readonly user=64200 other=64201 first=6420000 # the user, another one, and the first of the user's further ids

# Makes the namespaces and runs this script in them; runs as root.
prepare() {
    for needed in newuidmap setpriv unshare; do
        command -v "$needed" >/dev/null || {
            printf 'skipped: %s is not installed\n' "$needed"
            exit 77
        }
    done
    local here
    here=$(dirname "$0")
    . "$here/../../support/checks.sh"
    explain_failure() { cat "$place/out"; }
    checked() { "$@" >"$place/out" 2>&1; }
    place=/rootless.$$ # not in /tmp: what other users have there is refused
    mkdir -m 755 "$place" || exit
    # The user can read neither the source nor the build directory everywhere.
    mkdir -p "$place/system/oci" "$place/support" "$place/home" "$place/theirs/state" "$place/theirs/root/data"
    cp "$0" "$here/oci_lib.sh" "$place/system/oci/"
    cp "$here/../../support/checks.sh" "$place/support/"
    cp "$ZNCRUN" "$place/zncrun"
    ln -s "$place/home" "$place/theirs/link"
    ln -s "$place/home" "$place/theirs/root/dev"
    chown -R --no-dereference "$other:$other" "$place/theirs"
    chown "$user:$user" "$place/home"
    { cat /etc/passwd && printf 'znctest:x:%s:%s::%s/home:/bin/sh\n' "$user" "$user" "$place"; } >"$place/passwd"
    printf 'znctest:%s:65536\n' "$first" >"$place/ranges"
    mount --bind "$place/passwd" /etc/passwd
    for file in /etc/subuid /etc/subgid; do
        [[ -e $file ]] || touch "$file"
        mount --bind "$place/ranges" "$file"
    done
    export ZNCRUN=$place/zncrun ROOTLESS_PLACE=$place
    as_user=(setpriv --reuid "$user" --regid "$user" --clear-groups --bounding-set=-sys_resource)
    script=$place/system/oci/oci_rootless.sh
}

stage() { # NAME COMMAND...: the checks of that name, run by the command
    local name=$1 before=$failed
    shift
    check "the checks of \"$name\"" "$@" bash "$script" "$name"
    ((failed > before)) || sed "s/^/  /" "$place/out"
}
# A machine with v2 alone, where the user has been given a group.
delegated() {
    unshare --mount bash -c 'umount -R /sys/fs/cgroup && mount -t cgroup2 none /sys/fs/cgroup && group=/sys/fs/cgroup/$1 &&
        mkdir "$group" "$group/own" && chown -R "$2:$2" "$group" && echo $$ >"$group/own/cgroup.procs" && shift 2 && exec "$@"' \
        - "znctest$$" "$user" "${as_user[@]}" unshare --map-root-user --map-auto --mount "$@"
}
nobody_left() { ! pgrep -U "$user,$first,$((first + 999))" >/dev/null; }

if [[ $# -eq 0 ]]; then
    prepare
    stage many "${as_user[@]}" unshare --map-root-user --map-auto --mount
    stage single "${as_user[@]}" unshare --map-root-user --mount
    stage plain "${as_user[@]}"
    if mount -t cgroup2 none /mnt 2>/dev/null; then
        umount /mnt
        stage delegated delegated
        check 'the group of the user has no groups but its own' \
            test -z "$(find "/sys/fs/cgroup/unified/znctest$$" /sys/fs/cgroup/znctest$$ -mindepth 2 -type d 2>/dev/null)"
        rmdir /sys/fs/cgroup{/unified,}/znctest$$/own /sys/fs/cgroup{/unified,}/znctest$$ 2>/dev/null
    else
        printf 'skipped: this machine has no cgroup2\n'
    fi
    check 'no process of the user is left' eventually nobody_left
    check 'nothing of the user is left in /tmp' test -z "$(find /tmp -path "$place" -prune -o -newer "$place" -user "$user" -print)"
    check 'the directories of the other user are as they were' test "$(find "$place/theirs" "$place/home" | sort)" = "$(printf '%s\n' \
        "$place"/{home,theirs,theirs/link,theirs/root,theirs/root/data,theirs/root/dev,theirs/state} | sort)"
    umount /etc/passwd /etc/subuid /etc/subgid
    rm -rf "$place"
    finish_checks
    exit
fi

. "$(dirname "$0")/oci_lib.sh"
place=$ROOTLESS_PLACE
theirs=$place/theirs
make_bundle web true
plain=$(<"$work/web/config.json")
without_group() { test "$(jq -r .cgroup "$work/state/$me-web/state.json")" = ''; }

check_run() {
    given . sh -c 'id -u; echo $$; hostname; ls /proc/self/fd >/dev/null && echo proc; ls /sys/class >/dev/null && echo sys'
    expect 'run' 0 $'0\n1\nbox\nproc\nsys'
    given . sh -c 'exit 7'
    expect 'run ends with the exit status of the program' 7 ''
    given . sh -c 'for d in null zero full random urandom tty; do test -c /dev/$d || echo $d; done; echo x >/dev/null; head -c 2 /dev/zero | od -An -tx1'
    expect 'the devices are there' 0 ' 00 00'
    given . sh -c 'cat /proc/kcore | wc -c; ls /sys/firmware | wc -l; echo 1 >/proc/sys/kernel/panic || echo read-only'
    check 'paths are hidden and read-only' test "$out" = $'0\n0\nread-only'
    given . sh -c 'mkdir /new && echo made >/new/file; mknod /tmp/disk b 8 0 || echo no device'
    expect 'what the program makes' 0 'no device'
    check 'the root is the tree of the bundle' test "$(<"$work/web/rootfs/new/file")" = made
    given '.root.readonly = true' touch /new/other
    check 'a read-only root' test "$status" = 1
    given . /nosuch
    refused 'a missing program' 'exec: "/nosuch": stat /nosuch: no such file or directory'
    given '.process.cwd = "/bin/busybox"' true
    refused 'a working directory that is a file' 'chdir to cwd'
    given ".hooks.createRuntime = [{path: \"/bin/sh\", args: [\"sh\", \"-c\", \"cat >$work/hook\"]}]
        | .hooks.createContainer = [{path: \"/bin/sh\", args: [\"sh\", \"-c\", \"echo made >$work/web/rootfs/tmp/hook\"]}]" cat /tmp/hook
    expect 'hooks' 0 made
    check 'a hook gets the state' jq -e '.status == "creating"' "$work/hook"
}

check_lifecycle() {
    printf '%s' "$plain" >"$work/web/config.json"
    program web sh -c 'trap "exit 5" TERM; while :; do sleep 0.05; done'
    run zncrun create --pid-file "$work/pid" --bundle "$work/web" "$me-web"
    expect 'create' 0 ''
    check 'the container is created' is_state "$me-web" created
    run zncrun create --bundle "$work/web" "$me-web"
    refused 'the same id again' 'already exists'
    run zncrun start "$me-web"
    expect 'start' 0 ''
    check 'the container runs' is_state "$me-web" running
    run zncrun exec "$me-web" sh -c 'echo $PWD; readlink /proc/self/ns/pid; test -r /proc/1/cmdline && exit 9'
    expect 'exec' 9 "/"$'\n'"$(readlink "/proc/$(<"$work/pid")/ns/pid")"
    run zncrun exec --cwd /tmp --env NAME=value "$me-web" sh -c 'pwd; echo $NAME'
    expect 'exec in a directory with a variable' 0 $'/tmp\nvalue'
    run zncrun exec "$me-web" nosuch
    exec_refused 'exec of a missing program' 'executable file not found in $PATH'
    run with_terminal "$work/socket" "$ZNCRUN" --root "$work/state" exec --tty --console-socket "$work/socket" \
        "$me-web" sh -c 'tty; exec 3<>/dev/tty && echo controlling'
    expect 'exec with a terminal' 0 $'/dev/pts/0\ncontrolling'
    run zncrun delete "$me-web"
    refused 'a container that runs is not deleted' 'not stopped: running'
    run zncrun kill "$me-web" TERM
    expect 'kill' 0 ''
    check 'the program gets the signal and ends' eventually is_state "$me-web" stopped
    run zncrun delete "$me-web"
    expect 'delete' 0 ''
    printf '%s' "$plain" >"$work/web/config.json"
    program web sleep 1000
    run zncrun run --detach --pid-file "$work/pid" --bundle "$work/web" "$me-web"
    expect 'run --detach' 0 ''
    run zncrun delete --force "$me-web"
    expect 'delete --force' 0 ''
    check 'its process has ended' not lives "$(<"$work/pid")"
    change web '.process.terminal = true'
    program web tty
    run with_terminal "$work/socket2" "$ZNCRUN" --root "$work/state" run --bundle "$work/web" \
        --console-socket "$work/socket2" "$me-web"
    expect 'run with a terminal' 0 /dev/pts/0
}

check_groups() { # without rights on control groups
    local limit
    for limit in 'memory.limit: 67108864' 'pids.limit: 20' 'cpu.quota: 5000' 'cpu.cpus: "0"' 'unified: {"pids.max": "5"}'; do
        given ".linux.resources.${limit%%:*} = ${limit#*: }" true
        refused "a limit: ${limit%%:*}" "linux.resources.${limit%%:*}"
        check 'the message says why' grep -q 'has no control group' "$work/err"
    done
    given '.linux.resources = {memory: {limit: -1}, pids: {limit: -1}, devices: [{allow: false, access: "rwm"}]}' true
    expect 'no limits, and rules for devices' 0 ''
    given '.linux.cgroupsPath = "/elsewhere" | .linux.namespaces += [{type: "cgroup"}]
        | .mounts += [{destination: "/sys/fs/cgroup", type: "cgroup", source: "cgroup", options: ["ro"]}]' \
        sh -c 'ls -A /sys/fs/cgroup | wc -l; touch /sys/fs/cgroup/new'
    check 'a mount of the group shows an empty directory' test "$status/$out" = 1/0
    check 'that cannot be written' grep -q 'Read-only' "$work/err"
    program web sleep 1000
    run zncrun run --detach --bundle "$work/web" "$me-web"
    check 'a container without a control group' without_group
    for command in pause resume ps 'update --memory 1000000' 'events --stats' 'kill --all'; do
        # shellcheck disable=SC2086 # the words of the command
        run zncrun $command "$me-web"
        refused "$command" 'has no control group'
    done
    run zncrun delete --force "$me-web"
    expect 'a container without a control group is deleted' 0 ''
}

check_settings() {
    local score hard
    score=$(</proc/self/oom_score_adj)
    hard=$(ulimit -Hn)
    given '.process.oomScoreAdj = -900' cat /proc/self/oom_score_adj
    expect 'a lower out-of-memory score is that of the caller' 0 "$score"
    given '.process.oomScoreAdj = 400' cat /proc/self/oom_score_adj
    expect 'a higher one is set' 0 400
    given '.process.rlimits = [{type: "RLIMIT_NOFILE", soft: 64, hard: 128}]' sh -c 'ulimit -Sn; ulimit -Hn'
    expect 'resource limits' 0 $'64\n128'
    given ".process.rlimits = [{type: \"RLIMIT_CORE\", soft: 0, hard: 0}, {type: \"RLIMIT_NOFILE\", soft: 64, hard: $((hard + 1))}]" true
    refused 'a limit above the hard limit' "process.rlimits[1].hard: above the hard limit of the caller, $hard"
    given '.mounts += [{destination: "/dev/mqueue", type: "mqueue", source: "mqueue", options: ["nosuid"]}]' ls /dev/mqueue
    expect 'message queues' 0 ''
    given '.linux.sysctl = {"net.ipv4.ip_forward": "1"}' cat /proc/sys/net/ipv4/ip_forward
    expect 'kernel parameters of its namespaces' 0 1
    given '.linux.devices = [{path: "/dev/zero", type: "c", major: 1, minor: 5}, {path: "/dev/pipe", type: "p"}]' \
        sh -c 'test -p /dev/pipe && head -c 1 /dev/zero | od -An -tx1'
    expect 'devices of the configuration' 0 ' 00'
    given '.linux.devices = [{path: "/dev/absent", type: "c", major: 240, minor: 77}]' true
    refused 'a device that the host does not have' 'linux.devices: /dev/absent: no such device'
    touch "$work/web/rootfs/data/file"
    given '.linux.devices = [{path: "/data/file", type: "c", major: 1, minor: 3}] | .mounts += [{destination: "/data", type: "tmpfs"}]' \
        sh -c 'test -c /data/file && test -c /dev/null'
    check 'a device elsewhere: only one of the same number' test "$status" = 1
    mkdir -p "$work/host"
    given '.mounts += [{destination: "/mnt", type: "bind", source: "'"$work/host"'", options: ["bind", "rw"]}]' touch /mnt/new
    check 'a bind' test "$status/$(stat -c %u "$work/host/new")" = 0/0
    given '.mounts += [{destination: "/mnt", type: "bind", source: "'"$work/host"'", options: ["bind"],
        uidMappings: [{containerID: 0, hostID: 1, size: 1}], gidMappings: [{containerID: 0, hostID: 1, size: 1}]}]' true
    check 'a bind with other owners is refused' test "$status" = 1
    # Before Linux 6.3 the files of a tmpfs can have no other owners, whoever asks.
    check 'the refusal names the mount' \
        grep -qE 'mounts: /mnt: (only root of the host|uidMappings)|"/mnt": invalid argument' "$work/err"
}

check_shared() { # namespaces of the host
    given '.linux.namespaces |= map(select(.type == "mount" or .type == "uts" or .type == "pid"))' \
        sh -c 'readlink /proc/self/ns/net; ls /sys/class/net >/dev/null && touch /sys/new'
    check 'the network of the host' test "$status/$out" = "1/$(readlink /proc/self/ns/net)"
    check 'sysfs of the host is read-only' grep -q 'Read-only' "$work/err"
    given '.linux.namespaces |= map(select(.type == "mount"))  | del(.hostname)' readlink /proc/self/ns/pid
    expect 'the processes of the host' 0 "$(readlink /proc/self/ns/pid)"
    change web '.process.args = ["sleep", "1000"]'
    run zncrun run --detach --bundle "$work/web" "$me-web"
    expect 'a container in namespaces of the host' 0 ''
    run zncrun exec "$me-web" sh -c 'readlink /proc/self/ns/net; ls -d /data'
    expect 'exec there' 0 "$(readlink /proc/self/ns/net)"$'\n/data'
    run zncrun delete --force "$me-web"
    printf '%s' "$plain" >"$work/web/config.json"
    program web sleep 1000
    run zncrun run --detach --pid-file "$work/pid" --bundle "$work/web" "$me-web"
    cp -a "$work/web" "$work/pod"
    change pod '.linux.namespaces = [{type: "mount"}, {type: "pid"}, {type: "network", path: "/proc/'"$(<"$work/pid")"'/ns/net"},
        {type: "ipc", path: "/proc/'"$(<"$work/pid")"'/ns/ipc"}] | del(.hostname)'
    program pod sh -c 'readlink /proc/self/ns/net; readlink /proc/self/ns/ipc; ls -d /sys/class'
    run zncrun run --bundle "$work/pod" "$me-pod"
    expect 'namespaces of another container' 0 \
        "$(readlink "/proc/$(<"$work/pid")/ns/net" "/proc/$(<"$work/pid")/ns/ipc")"$'\n/sys/class'
    change pod '.linux.namespaces[2].path = "/proc/self/ns/uts"'
    run zncrun run --bundle "$work/pod" "$me-pod"
    refused 'a path to a namespace of another kind' 'linux.namespaces: network'
    run zncrun delete --force "$me-web"
    expect 'all are deleted' 0 ''
}

check_users() { # with many users
    given '.process.user = {uid: 1000, gid: 1001, additionalGids: [7]}' sh -c 'id -u; id -G; touch /tmp/user && stat -c %u /tmp/user'
    chmod 1777 "$work/web/rootfs/tmp"
    given '.process.user = {uid: 1000, gid: 1001, additionalGids: [7]}' sh -c 'id -u; id -G; touch /tmp/user && stat -c %u /tmp/user'
    expect 'another user with groups' 0 $'1000\n1001 7\n1000'
    given '.process.user = {uid: 70000, gid: 0}' true
    refused 'a user that is not mapped' 'process.user.uid: is not mapped'
    given '.process.user = {uid: 0, gid: 0, additionalGids: [70000]}' true
    refused 'a group that is not mapped' 'process.user.additionalGids: is not mapped'
    given '.mounts[2].options += ["gid=5"]' stat -c %g /dev/pts
    check 'the group of terminals is mapped' test "$status" = 0
    chown -R 1:1 "$work/web/rootfs"
    given '.linux.namespaces += [{type: "user"}, {type: "cgroup"}] | .linux.uidMappings = [{containerID: 0, hostID: 1, size: 2000}]
        | .linux.gidMappings = .linux.uidMappings | .mounts[2].options += ["gid=5"]' \
        sh -c 'tr -s " " </proc/self/uid_map; id -u; stat -c %u / /dev; echo x >/dev/null; touch /tmp/nested; umount /sys || echo locked'
    expect 'a user namespace in the user namespace' 0 $' 0 1 2000\n0\n0\n0\nlocked'
    check 'its files belong to mapped users' test "$(stat -c %u "$work/web/rootfs/tmp/nested")" = 1
    given '.linux.namespaces += [{type: "user"}] | .linux.uidMappings = [{containerID: 0, hostID: 60000, size: 10000}]
        | .linux.gidMappings = .linux.uidMappings' true
    refused 'mappings to users that the caller does not have' 'linux.namespaces: user'
    given '.linux.namespaces += [{type: "user"}] | .linux.uidMappings = [{containerID: 0, hostID: 1, size: 2000}]
        | .linux.gidMappings = .linux.uidMappings | .process.rlimits = [{type: "RLIMIT_NOFILE", soft: 64, hard: 128}]' \
        sh -c 'ulimit -Hn; cat /proc/self/oom_score_adj'
    expect 'limits and score of the nested namespace' 0 $'128\n'"$(</proc/self/oom_score_adj)"
    program web sleep 1000
    run zncrun run --detach --bundle "$work/web" "$me-web"
    run zncrun exec --user 5:6 "$me-web" sh -c 'id -u; id -g; echo $HOME'
    expect 'exec as another user of the nested namespace' 0 $'5\n6\n/'
    run zncrun delete --force "$me-web"
    expect 'the container of the nested namespace is deleted' 0 ''
}

check_foreign() { # directories of another user
    run "$ZNCRUN" --root "$theirs/state" create --bundle "$work/web" "$me-web"
    refused 'a root directory of another user' 'belongs to a user that is not mapped'
    run "$ZNCRUN" --root "$theirs/link/state" create --bundle "$work/web" "$me-web"
    refused 'a symbolic link of another user on the way' 'symbolic link of a user that is not mapped'
    run "$ZNCRUN" --root "$theirs/link/state" delete --force "$me-web"
    refused 'a symbolic link of another user on the way of delete' 'symbolic link of a user that is not mapped'
    mkdir -m 777 "$work/open"
    run "$ZNCRUN" --root "$work/open/state" create --bundle "$work/web" "$me-web"
    refused 'a directory that others can write to' 'can be written by other users'
    printf '%s' "$plain" >"$work/web/config.json"
    run env XDG_RUNTIME_DIR="$theirs" "$ZNCRUN" create --bundle "$work/web" "$me-web"
    check 'XDG_RUNTIME_DIR of another user' test "$status" = 1
    given '.root.path = "'"$theirs/root"'"' true
    check 'a root filesystem of another user is not written to' test "$status" = 1
    given '.root.path = "'"$theirs/root"'" | .mounts = [] | del(.linux.maskedPaths, .linux.readonlyPaths)' true
    check 'no devices are made through a link in it' test "$status" = 1
}

case $1 in
many)
    check_run
    check_lifecycle
    check_groups
    check_settings
    check_shared
    check_users
    check_foreign
    ;;
single)
    check_run
    check_lifecycle
    check_settings
    check_foreign
    given '.process.user = {uid: 0, gid: 0, additionalGids: [0]}' true
    refused 'groups where setgroups is denied' 'process.user.additionalGids: the user namespace of the caller denies setgroups'
    given '.process.user = {uid: 1, gid: 0}' true
    refused 'a user of a namespace with one user' 'process.user.uid: is not mapped'
    given '.mounts[2].options += ["gid=5"]' sh -c 'test -c /dev/ptmx && echo terminals'
    expect 'the group of terminals is not mapped' 0 terminals
    ;;
plain)
    given . true
    refused 'an ordinary user without a user namespace' 'must run as root'
    ;;
delegated)
    group=/$(sed -n 's|^0::/\([^/]*\)/.*|\1|p' /proc/self/cgroup)/box
    given ".linux.cgroupsPath = \"$group\" | .linux.resources.devices = [{allow: false, access: \"rwm\"}]" \
        sh -c 'grep ^0 /proc/self/cgroup; echo x >/dev/null'
    expect 'a container in a group of the user' 0 "0::$group"
    given ".linux.cgroupsPath = \"$group\" | .linux.namespaces += [{type: \"cgroup\"}]
        | .mounts += [{destination: \"/sys/fs/cgroup\", type: \"cgroup\", source: \"cgroup\", options: [\"ro\"]}]" \
        sh -c 'grep ^0 /proc/self/cgroup; cat /sys/fs/cgroup/cgroup.procs'
    check 'it sees its own group alone' test "$status/$(head -n 2 "$work/out")" = $'0/0::/\n1'
    program web sleep 1000
    run zncrun run --detach --bundle "$work/web" "$me-web"
    run zncrun ps --format json "$me-web"
    expect 'ps' 0 "[$(state_of "$me-web" .pid)]"
    run zncrun pause "$me-web"
    check 'pause' is_state "$me-web" paused
    run zncrun resume "$me-web"
    check 'resume' is_state "$me-web" running
    run zncrun kill --all "$me-web" KILL
    check 'kill --all' eventually is_state "$me-web" stopped
    run zncrun delete "$me-web"
    expect 'delete' 0 ''
    check 'the group is removed' test ! -e "/sys/fs/cgroup$group"
    given . sh -c 'cat /proc/self/cgroup'
    expect 'without a path, in the group of the caller' 0 "$(</proc/self/cgroup)"
    given '.linux.resources.pids.limit = 10' true
    refused 'a limit without a path' 'linux.resources.pids.limit: the container has no control group'
    ;;
esac
finish
