#!/usr/bin/env bash
# Tests of what zncrun makes of a configuration: rights, namespaces, devices, limits, paths.
# shellcheck source=oci_lib.sh disable=SC2016,SC2317
. "$(dirname "$0")/oci_lib.sh"

make_bundle web true
plain=$(<"$work/web/config.json")
status_line() { printf "grep %s: /proc/self/status | { read -r _ value; echo \$value; }" "$1"; }

# Rights. Nothing is granted that the configuration does not grant.
given . sh -c "$(status_line CapBnd); $(status_line CapEff); $(status_line NoNewPrivs); $(status_line Seccomp); umask"
expect 'without settings: no capabilities, no filter, set-user-ID programs' 0 \
    $'0000000000000000\n0000000000000000\n0\n0\n0022'
given '.process.capabilities = {bounding: ["CAP_KILL", "CAP_CHOWN"], effective: ["CAP_KILL"],
    permitted: ["CAP_KILL"], ambient: ["CAP_KILL"], inheritable: ["CAP_KILL"]}
    | .process.user.uid = 1000' sh -c "$(status_line CapBnd); $(status_line CapEff); $(status_line CapAmb)"
expect 'capabilities' 0 $'0000000000000021\n0000000000000020\n0000000000000020'
given '.process.capabilities = {bounding: ["CAP_KILL", "CAP_OF_LATER"]}' sh -c "$(status_line CapBnd)"
expect 'a capability of later kernels is not granted' 0 0000000000000020
run zncrun --log "$work/log" create --bundle "$work/web" "$me-web"
check 'the log names the unknown capability' grep -q 'level=warning.*CAP_OF_LATER' "$work/log"
run zncrun delete "$me-web"
given '.process.capabilities = {bounding: [1]}' true
refused 'an invalid capability name' 'process.capabilities.bounding[0]'
given '.process.noNewPrivileges = true' sh -c "$(status_line NoNewPrivs)"
expect 'no-new-privileges' 0 1
given '.process.user = {uid: 1000, gid: 1001, additionalGids: [5, 7], umask: 63}' \
    sh -c 'id -u; id -G; umask; echo $HOME'
expect 'user, groups, umask, home' 0 $'1000\n1001 5 7\n0077\n/home/user'
given '.process.env += ["HOME=/given"]' sh -c 'echo $HOME'
expect 'a home that is given' 0 /given
given '.process.rlimits = [{type: "RLIMIT_NOFILE", soft: 100, hard: 200}]' sh -c 'ulimit -Sn; ulimit -Hn'
expect 'resource limits' 0 $'100\n200'
given '.process.rlimits = [{type: "RLIMIT_NOFILE", soft: 9000000000, hard: 9000000000}]' true
refused 'limits that the kernel refuses' process.rlimits
given '.process.oomScoreAdj = 500' cat /proc/self/oom_score_adj
expect 'out-of-memory score' 0 500
given '.linux.seccomp = {defaultAction: "SCMP_ACT_ALLOW", syscalls: [{names: ["mkdir", "mkdirat"],
    action: "SCMP_ACT_ERRNO", errnoRet: 95}]}' sh -c "$(status_line Seccomp); mkdir /tmp/d 2>&1 | grep -o 'not supported'"
expect 'a filter' 0 $'2\nnot supported'
given '.linux.seccomp = {defaultAction: "SCMP_ACT_ERRNO", syscalls: [{names: ["read"],
    action: "SCMP_ACT_ALLOW"}]}' true
check 'a filter that allows nothing does not make the program run unfiltered' test "$status" != 0

# Namespaces.
own() { readlink "/proc/self/ns/$1"; }
given . sh -c 'for n in pid mnt ipc uts net; do readlink /proc/self/ns/$n; done; hostname'
for name in pid mnt ipc uts net; do
    check "a new $name namespace" not grep -qxF "$(own $name)" "$work/out"
done
check 'the host name' grep -qx box "$work/out"
given '.linux.namespaces = [{type: "mount"}] | del(.hostname)' \
    sh -c 'for n in pid ipc uts net; do readlink /proc/self/ns/$n; done'
for name in pid ipc uts net; do
    check "the host's $name namespace when none is named" grep -qxF "$(own $name)" "$work/out"
done
given '.linux.namespaces += [{type: "cgroup"}]' cat /proc/self/cgroup
check 'a cgroup namespace shows the group as its root' not grep -qv ':/$' "$work/out"
given . cat /proc/self/cgroup
check 'without it the path is the group of the container' grep -q ":/zncrun/$me-web@[0-9a-f]*-[0-9a-f]*\$" "$work/out"
given '.linux.cgroupsPath = "/zncrun/'"$me"'-other"' cat /proc/self/cgroup
check 'the path of the group is as given' grep -q ":/zncrun/$me-other\$" "$work/out"

make_bundle pod sleep 1000
run zncrun run --detach --bundle "$work/pod" "$me-pod"
pod=$(state_of "$me-pod" .pid)
given '.linux.namespaces = [{type: "mount"}] + (["pid", "ipc", "uts"] | map({type: ., path: "/proc/'"$pod"'/ns/\(.)"}))
    + [{type: "network", path: "/proc/'"$pod"'/ns/net"}] | del(.hostname)' \
    sh -c 'for n in pid ipc uts net; do readlink /proc/self/ns/$n; done; hostname; ps | grep -c "[s]leep 1000"'
for name in pid ipc uts net; do
    check "joins the $name namespace of another container" grep -qxF "$(readlink "/proc/$pod/ns/$name")" "$work/out"
done
check 'the container sees the processes of the other container' test "$(tail -n 2 "$work/out")" = $'box\n1'
check 'the other container still runs' is_state "$me-pod" running
run zncrun delete --force "$me-pod"
given '.linux.namespaces = []' true
refused 'no mount namespace' 'needs a new mount namespace'
given '.linux.namespaces[4].path = "/nosuch"' true
refused 'a namespace that does not exist' 'linux.namespaces: network: /nosuch: no such file'

# Devices.
given . sh -c 'cd /dev; for d in null zero full random urandom tty; do test -c $d || echo $d; done
    readlink fd; readlink ptmx; echo x >null; head -c 1 zero | od -An -tx1'
expect 'devices and links that all have' 0 $'/proc/self/fd\npts/ptmx\n 00'
given '.linux.devices = [{path: "/dev/own", type: "c", major: 1, minor: 3, fileMode: 8630, uid: 5, gid: 6},
    {path: "/elsewhere/pipe", type: "p"}]' sh -c 'stat -c "%F %a %u %g" /dev/own; stat -c %F /elsewhere/pipe'
expect 'devices of the configuration' 0 $'character special file 666 5 6\nfifo'
# Without access the kernel says "not permitted"; without a driver, something else.
opens() { not grep -qi 'not permitted' "$work/err" && grep -qx end "$work/out"; }
given '.process.capabilities = {bounding: ["CAP_MKNOD"], effective: ["CAP_MKNOD"], permitted: ["CAP_MKNOD"]}' \
    sh -c 'mknod /tmp/loop c 10 237 && cat </dev/null >/tmp/loop; echo end'
check 'devices that no rule allows cannot be used' not opens
given '.process.capabilities = {bounding: ["CAP_MKNOD"], effective: ["CAP_MKNOD"], permitted: ["CAP_MKNOD"]}' \
    sh -c 'mknod /tmp/null c 1 3 && cat </dev/null >/tmp/null; echo end'
check 'devices of every container can be used' opens
loop='.linux.devices = [{path: "/dev/loop", type: "c", major: 10, minor: 237}]'
given "$loop" sh -c 'cat </dev/null >/dev/loop; echo end'
check 'a device of the configuration needs a rule, too' not opens
given "$loop"' | .linux.resources.devices = [{allow: false, access: "rwm"},
    {allow: true, type: "c", major: 10, minor: 237, access: "rw"}]' sh -c 'cat </dev/null >/dev/loop; echo end'
check 'a rule allows it' opens

# Kernel parameters, paths, root.
given '.linux.sysctl = {"kernel.msgmax": "4096", "net.ipv4.ip_forward": "1"}' \
    cat /proc/sys/kernel/msgmax /proc/sys/net/ipv4/ip_forward
expect 'kernel parameters' 0 $'4096\n1'
given '.linux.sysctl = {"kernel.pid_max": "10"}' true
refused 'parameters of the host' 'linux.sysctl'
given . sh -c 'cat /proc/keys | wc -c; ls /sys/firmware | wc -l; echo 1 >/proc/sys/kernel/msgmax'
check 'hidden paths are empty' test "$out" = $'0\n0'
check 'read-only paths' grep -qi 'read-only' "$work/err"
given '.linux.maskedPaths = []' sh -c 'head -c 1 /proc/keys | wc -c'
expect 'only what is named is hidden' 0 1
given '.root.readonly = true' touch /new
check 'a read-only root' grep -qi 'read-only' "$work/err"
given . sh -c 'touch /new && chmod 4755 /new && stat -c %a /new'
expect 'the root is the given one' 0 4755
check 'files are written to the given root' test -u "$work/web/rootfs/new"
given '.domainname = "realm"' cat /proc/sys/kernel/domainname
expect 'the NIS domain name' 0 realm

# The session keyring.
cp "$KEYRING" "$work/web/rootfs/bin/keyring"
ours=$("$KEYRING")
given . keyring
check 'a session keyring of its own' test "$status" = 0 -a "$out" != "$ours" -a "${out:--1}" -gt 0
run zncrun run --no-new-keyring --bundle "$work/web" "$me-web"
expect '--no-new-keyring leaves that of the caller' 0 "$ours"

# Limits.
given '.linux.resources.pids.limit = 20' sh -c 'echo works'
expect 'a limit of processes' 0 works
given '.linux.resources.memory.limit = 67108864' sh -c 'echo works'
expect 'a limit of memory' 0 works
given '.linux.resources.memory.limit = "x"' true
refused 'a limit of the wrong type' 'linux.resources.memory.limit'
given '.linux.resources.unified = {"a/b": "1"}' true
refused 'a control file elsewhere' 'linux.resources.unified.a/b: not the name of a control file'
if [[ -e /sys/fs/cgroup/cgroup.controllers ]]; then
    given '.linux.resources.unified = {"cgroup.max.depth": "7"} | .linux.namespaces += [{type: "cgroup"}]
        | .mounts += [{destination: "/sys/fs/cgroup", type: "cgroup", source: "cgroup"}]' cat /sys/fs/cgroup/cgroup.max.depth
    expect 'a control file by name' 0 7
    given '.linux.resources.unified = {"nosuch.max": "7"}' true
    refused 'a control file that does not exist' 'linux.resources.unified'
else
    given '.linux.resources.unified = {"cgroup.max.depth": "7"}' true
    refused 'control files by name with v1' 'linux.resources.unified (invalid configuration: needs control groups v2)'
fi

# What cannot be honoured is named.
if [[ $(cat /sys/module/apparmor/parameters/enabled 2>/dev/null) != Y ]]; then
    given '.process.apparmorProfile = "other"' true
    refused 'AppArmor where the kernel does not use it' 'process.apparmorProfile: the kernel does not use AppArmor'
fi
if [[ ! -e /sys/fs/selinux/enforce ]]; then
    given '.process.selinuxLabel = "u:r:t:s0"' true
    refused 'SELinux where the kernel does not use it' 'process.selinuxLabel: the kernel does not use SELinux'
    given '.linux.mountLabel = "u:r:t:s0"' true
    refused 'mount labels where the kernel does not use SELinux' 'linux.mountLabel: the kernel does not use SELinux'
fi
given '.linux.intelRdt = {closID: "x"}' true
refused 'resource control' 'linux.intelRdt'
given '.linux.cgroupsPath = "system.slice:a:b"' true
refused 'groups of systemd without --systemd-cgroup' 'linux.cgroupsPath'
finish
