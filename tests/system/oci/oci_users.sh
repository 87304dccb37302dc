#!/usr/bin/env bash
# Tests of user namespaces, of mounts with other owners, and of time namespaces.
# shellcheck source=oci_lib.sh disable=SC2016
. "$(dirname "$0")/oci_lib.sh"

make_bundle web true
chown -R 100000:200000 "$work/web/rootfs"
plain=$(jq '.linux.namespaces += [{type: "user"}, {type: "cgroup"}]
    | .linux.uidMappings = [{containerID: 0, hostID: 100000, size: 5000}]
    | .linux.gidMappings = [{containerID: 0, hostID: 200000, size: 5000}]
    | .mounts[2].options += ["gid=5"]' "$work/web/config.json")
all='["CAP_SYS_ADMIN", "CAP_SYS_CHROOT", "CAP_DAC_OVERRIDE", "CAP_CHOWN", "CAP_NET_ADMIN", "CAP_MKNOD", "CAP_SETUID",
    "CAP_SETGID", "CAP_SYS_RESOURCE"]'
rights=".process.capabilities = {bounding: $all, effective: $all, permitted: $all}"

given . sh -c 'cat /proc/self/uid_map /proc/self/gid_map; id -u; id -g; stat -c %u:%g / /bin/busybox /dev /dev/null; readlink /proc/self/ns/user'
check 'a container in a user namespace' test "$status" = 0
check 'the container has its mappings' test "$(head -n 2 "$work/out" | tr -s ' ')" = $' 0 100000 5000\n 0 200000 5000'
check 'its root owns its root, its /dev and the devices' \
    test "$(sed -n '3,8p' "$work/out")" = $'0\n0\n0:0\n0:0\n0:0\n0:0'
check 'the user namespace is a new one' not grep -qxF "$(readlink /proc/self/ns/user)" "$work/out"
given . sh -c 'touch /tmp/made && mkdir /sub'
check 'what it creates belongs to the mapped users of the host' test "$(stat -c %u:%g "$work/web/rootfs/tmp/made")" = 100000:200000
given '.process.user = {uid: 1000, gid: 1001, additionalGids: [7]}' sh -c 'id -u; id -G; echo $HOME'
expect 'another user' 0 $'1000\n1001 7\n/home/user'
given '.process.user = {uid: 6000, gid: 0}' true
check 'a user that is not mapped' test "$status" = 1
given '.linux.uidMappings[0].containerID = 1' true
refused 'mappings without root' "linux.uidMappings: the container's user 0 must be mapped"
given 'del(.linux.gidMappings)' true
refused 'no mappings' 'linux.gidMappings'
given '.process.rlimits = [{type: "RLIMIT_NOFILE", soft: 100, hard: 200}] | .process.oomScoreAdj = 300' \
    sh -c 'ulimit -Sn; ulimit -Hn; cat /proc/self/oom_score_adj; cat /proc/self/cgroup'
check 'limits, score and group' test "$(head -n 3 "$work/out")" = $'100\n200\n300'
check 'the control group is the root of the cgroup namespace' not grep -q zncrun "$work/out"
given '.linux.sysctl = {"kernel.msgmax": "4096", "net.ipv4.ip_forward": "1"}' \
    cat /proc/sys/kernel/msgmax /proc/sys/net/ipv4/ip_forward
expect 'kernel parameters' 0 $'4096\n1'
given '.linux.devices = [{path: "/dev/own", type: "c", major: 1, minor: 5, uid: 5, gid: 6}]' \
    sh -c 'stat -c %u:%g /dev/own; head -c 1 /dev/own | od -An -tx1; echo x >/dev/null'
expect 'devices' 0 $'5:6\n 00'
given '.linux.namespaces |= map(select(.type != "pid" and .type != "network" and .type != "cgroup"))' \
    sh -c 'readlink /proc/self/ns/pid; readlink /proc/self/ns/net'
check 'namespaces of the host' test "$out" = "$(readlink /proc/self/ns/pid /proc/self/ns/net)"

# The other namespaces belong to the user namespace; the host does not.
given "$rights" sh -c 'hostname changed && hostname; mount -t tmpfs none /mnt && echo mounted; mknod /tmp/null c 1 3 || echo no device'
expect 'capabilities count in the namespaces of the container' 0 $'changed\nmounted\nno device'
given "$rights" sh -c 'umount /proc/kcore; umount /sys; umount /proc; mount -o remount,rw /sys; mount -o remount,bind,rw /proc/sys; echo 1 >/proc/sys/kernel/msgmax; echo end'
expect 'mounts of the runtime cannot be undone' 0 end
check 'no umount worked' test "$(grep -c "umount: can't unmount" "$work/err")" = 3
check 'no remount worked' test "$(grep -cE "^mount: (permission|can't)|mount: .*(denied|permitted)" "$work/err")" -ge 2
check 'paths stay read-only' grep -qi 'msgmax: Read-only' "$work/err"
given "$rights | .root.readonly = true" sh -c 'mount -o remount,bind,rw / && echo writable; touch /new || echo read-only'
check 'a read-only root stays read-only' test "$(tail -n 1 "$work/out")" = read-only
given '.mounts += [{destination: "/mnt/deep", type: "tmpfs"}, {destination: "/mnt/own", type: "tmpfs", options: ["uid=7", "gid=8"]}]' \
    sh -c 'stat -c %u:%g /mnt/deep /mnt/own; touch /mnt/deep/file'
expect 'file systems of the container' 0 $'0:0\n7:8'
given '.mounts += [{destination: "/mnt", type: "tmpfs", options: ["uid=6000"]}]' true
refused 'an owner that is not mapped' '/mnt: owner'

# Hooks, exec, terminal, joining.
given ".hooks.createContainer = [{path: \"/bin/sh\", args: [\"sh\", \"-c\", \"echo made >$work/web/rootfs/tmp/by-hook\"]}]
    | .hooks.startContainer = [{path: \"/bin/id\", args: [\"id\", \"-u\"]}]" cat /tmp/by-hook
expect 'hooks' 0 made
check 'the one of the start has user 0 of the container' test "$err" = 0
given . true
program web sleep 1000
run zncrun run --detach --bundle "$work/web" "$me-web"
expect 'a container that runs' 0 ''
pid=$(state_of "$me-web" .pid)
check 'the process runs as a mapped user of the host' test "$(awk '/^Uid/ { print $2 }' "/proc/$pid/status")" = 100000
check 'no helper is left' test "$(zncrun ps --format json "$me-web")" = "[$pid]"
check 'all namespaces are new ones of the user namespace' python3 - "$pid" <<'P'
import fcntl, os, sys
user = os.stat(f"/proc/{sys.argv[1]}/ns/user").st_ino
for name in ("mnt", "pid", "ipc", "uts", "net", "cgroup"):
    file = os.open(f"/proc/{sys.argv[1]}/ns/{name}", os.O_RDONLY)
    owner = fcntl.ioctl(file, 0xb701)  # NS_GET_USERNS
    assert os.fstat(owner).st_ino == user, name
P
run zncrun exec "$me-web" sh -c 'readlink /proc/self/ns/user; id -u; touch /tmp/exec; cat /proc/self/uid_map; echo $$'
check 'exec enters the user namespace' test "$(head -n 2 "$work/out")" = "$(readlink "/proc/$pid/ns/user")"$'\n0'
check 'a program of exec has the mapped users' test "$(stat -c %u "$work/web/rootfs/tmp/exec")" = 100000
run zncrun exec --user 1000:1000 "$me-web" id -u
expect 'exec runs as another user' 0 1000
run zncrun exec --user 9000 "$me-web" true
exec_refused 'exec as an unmapped user is refused' 'invalid argument'
make_bundle pod true
chown -R 100000:200000 "$work/pod/rootfs"
change pod '.linux.namespaces = [{type: "mount"}, {type: "user", path: "/proc/'"$pid"'/ns/user"},
    {type: "network", path: "/proc/'"$pid"'/ns/net"}, {type: "pid"}, {type: "uts"}]'
program pod sh -c 'readlink /proc/self/ns/user; readlink /proc/self/ns/net; id -u; stat -c %u /dev/null; hostname'
run zncrun run --bundle "$work/pod" "$me-pod"
expect 'a second container joins the user namespace by path' 0 \
    "$(readlink "/proc/$pid/ns/user")"$'\n'"$(readlink "/proc/$pid/ns/net")"$'\n0\n0\nbox'
run zncrun delete --force "$me-web"
expect 'delete' 0 ''

# Mounts with other owners.
# ZNC_TEST_DISK: a directory for files if those of /tmp cannot have other owners (tmpfs before Linux 6.3).
host=${ZNC_TEST_DISK:-$work}/host
mkdir -p "$host"
touch "$host/root" "$host/user"
chown 5:6 "$host/user"
bind='{destination: "/mnt", type: "bind", source: "'"$host"'", options: ["bind"]}'
given ".mounts += [$bind]" sh -c 'stat -c %u:%g /mnt/root /mnt/user'
expect 'a bind shows the owners of the host' 0 $'65534:65534\n65534:65534'
given ".mounts += [$bind | .options += [\"idmap\"]]" sh -c 'stat -c %u:%g /mnt/root /mnt/user; touch /mnt/new'
expect 'a bind with idmap shows owners of the container' 0 $'0:0\n5:6'
check 'files created through idmap have mapped owners' test "$(stat -c %u:%g "$host/new")" = 0:0
given ".mounts += [$bind | .uidMappings = [{containerID: 0, hostID: 100003, size: 10}] | .gidMappings = [{containerID: 0, hostID: 200004, size: 10}]]" \
    sh -c 'stat -c %u:%g /mnt/root /mnt/user'
expect 'a bind with its own mappings shows these owners' 0 $'3:4\n8:10'
given ".linux.namespaces |= map(select(.type != \"user\")) | del(.linux.uidMappings, .linux.gidMappings)
    | .mounts += [$bind | .uidMappings = [{containerID: 0, hostID: 70, size: 10}] | .gidMappings = [{containerID: 0, hostID: 80, size: 10}]]" \
    sh -c 'stat -c %u:%g /mnt/root /mnt/user'
expect 'mappings of a bind need no user namespace' 0 $'70:80\n75:86'
given ".linux.namespaces |= map(select(.type != \"user\")) | del(.linux.uidMappings, .linux.gidMappings)
    | .mounts += [$bind | .options += [\"idmap\"]]" true
refused 'idmap without mappings and without a user namespace' 'needs mappings or a user namespace'
rm -r "$host"
given '.mounts += [{destination: "/mnt", type: "tmpfs", options: ["idmap"]}]' true
refused 'a mount that is not a bind' 'only binds can have other owners'

# Time namespaces.
up='cut -d. -f1 /proc/uptime'
now=$($up)
ln -sf busybox "$work/web/rootfs/bin/cut"
for with in '.' '.linux.namespaces |= map(select(.type != "user")) | del(.linux.uidMappings, .linux.gidMappings)'; do
    given "$with | .linux.namespaces += [{type: \"time\"}] | .linux.timeOffsets = {boottime: {secs: 100000}, monotonic: {secs: 5, nanosecs: 1}}" \
        sh -c "$up; cat /proc/self/timens_offsets; readlink /proc/self/ns/time"
    check 'a time namespace with offsets' test "$(head -n 1 "$work/out")" -ge $((now + 100000))
    check 'the time namespace has the given offsets' grep -qE '^monotonic +5 +1$' "$work/out"
    check 'the time namespace is a new one' not grep -qxF "$(readlink /proc/self/ns/time)" "$work/out"
done
given '.linux.timeOffsets = {boottime: {secs: 1}}' true
refused 'offsets without a time namespace' 'linux.timeOffsets: needs a new time namespace'
finish
