#!/usr/bin/env bash
# Tests of the mounts that zncrun makes.
# shellcheck source=oci_lib.sh disable=SC2016
. "$(dirname "$0")/oci_lib.sh"

make_bundle web true
plain=$(<"$work/web/config.json")
# mounted MOUNTS PROGRAM [ARG]...: runs a container with these mounts, too.
mounted() {
    printf '%s' "$plain" >"$work/web/config.json"
    change web ".mounts += [$1]"
    shift
    program web "$@"
    run zncrun run --bundle "$work/web" "$me-web"
}
options_of() { # OPTIONS of the mount at a path
    printf "awk '\$5 == \"%s\" { print \$6 }' /proc/self/mountinfo" "$1"
}
bind() { # DESTINATION OPTION...
    local destination=$1
    shift
    jq -nc --arg to "$destination" --arg from "$work/host" \
        '{destination: $to, type: "bind", source: $from, options: $ARGS.positional}' --args -- "$@"
}
mkdir -p "$work/host/below" "$work/web/relative"
echo host >"$work/host/file"
mount -t tmpfs tmpfs "$work/host/below"
echo below >"$work/host/below/file"

# Binds.
mounted "$(bind /mnt bind)" sh -c 'cat /mnt/file; ls /mnt/below; touch /mnt/new; '"$(options_of /mnt)"
check 'a bind without those below it' test "$status/${out%%$'\n'*}" = 0/host
check 'a bind can be written' test -e "$work/host/new"
mounted "$(bind /mnt rbind ro)" sh -c 'cat /mnt/below/file; touch /mnt/below/other && echo written; touch /mnt/x'
check 'a recursive bind: ro is about the mount itself' test "$out" = $'below\nwritten'
mounted "$(bind /mnt rbind rro)" sh -c 'touch /mnt/below/more && echo written; cat /mnt/below/file'
expect 'rro is about those below it, too' 0 below
mounted "$(bind /mnt bind nosuid nodev noexec noatime ro)" sh -c "$(options_of /mnt)"
expect 'flags' 0 ro,nosuid,nodev,noexec,noatime
mounted "$(bind /mnt bind)" sh -c "$(options_of /mnt)"
check 'no mount flags without options' not grep -qE 'nodev|noexec|ro,' "$work/out"
mounted "$(bind /etc/made/deep/file bind | jq -c '.source += "/file"')" cat /etc/made/deep/file
expect 'a file, whose mount point is created' 0 host
mounted '{"destination":"/mnt","type":"bind","source":"relative","options":["bind"]}' ls /mnt
expect 'a relative source is below the bundle' 0 ''
mounted "$(bind /mnt bind | jq -c '.source = "/nosuch"')" true
refused 'a missing source' 'no such file or directory'
mounted "$(bind /mnt bind nosuchoption)" true
refused 'an unknown option of a bind' 'unknown option "nosuchoption"'
mounted "$(bind / bind)" true
check 'a mount over the root itself is refused' test "$status" = 1
mounted '{"destination":"/mnt","type":"tmpfs","options":["nosuchoption"]}' true
refused 'an unknown option of a file system' '/mnt'
mounted '{"destination":"/mnt","type":"nosuchfs"}' true
refused 'an unknown file system' '/mnt'
echo text >"$work/web/rootfs/plain"
mounted '{"destination":"/first","type":"tmpfs"},{"destination":"/plain/in","type":"tmpfs"},
    {"destination":"/third","type":"tmpfs"}' true
refused 'a mount point below a file' 'mounting "tmpfs" to rootfs at "/plain/in"'
check 'mounts before one that fails are made' test -d "$work/web/rootfs/first"
check 'mounts after one that fails are not' test ! -e "$work/web/rootfs/third"
mounted '{"destination":"/plain/in","type":"tmpfs"},{"destination":"/mnt","type":"nosuchfs"}' true
refused 'of two mounts that fail, the first is named' '/plain/in'
rm "$work/web/rootfs/plain"
many=$(jq -nc '[range(100) | {destination: "/many/\(.)", type: "tmpfs"}] | tojson | .[1:-1]' -r)
mounted "$many" sh -c 'grep -c " /many/" /proc/self/mountinfo'
expect 'a hundred mounts' 0 100
mounted "$(bind /mnt bind | jq -c '.uidMappings = [{containerID: 0, hostID: 1, size: 1}]')" true
refused 'half of the mapped ids' 'needs both uidMappings and gidMappings'

# Propagation: peers of the host only if it is asked for.
mount --make-shared "$work/host/below"
for kind in rprivate rslave rshared; do
    mounted "$(bind /mnt rbind $kind)" sh -c "grep ' /mnt/below ' /proc/self/mountinfo | grep -oE 'shared|master' || echo private"
    case $kind in rprivate) word=private ;; rslave) word=master ;; rshared) word=shared ;; esac
    expect "$kind" 0 "$word"
done
mounted "$(bind /mnt rbind)" sh -c "grep ' /mnt/below ' /proc/self/mountinfo | grep -cE 'shared|master'"
expect 'propagation is private by default' 1 0
printf '%s' "$plain" >"$work/web/config.json"
change web '.linux.rootfsPropagation = "shared"'
program web sh -c "grep ' / / \\| / ' /proc/self/mountinfo | head -n 1 | grep -o shared"
run zncrun run --bundle "$work/web" "$me-web"
expect 'a shared root' 0 shared

# File systems.
mounted '{"destination":"/mnt","type":"tmpfs","source":"own","options":["size=64k","mode=711","noexec","ro"]}' \
    sh -c 'stat -c %a /mnt; grep " /mnt " /proc/mounts'
check 'a tmpfs' test "$status/${out%%$'\n'*}" = 0/711
check 'a tmpfs has its source and options' grep -q '^own /mnt tmpfs ro,.*noexec.*size=64k' "$work/out"
mkdir -p "$work/web/rootfs/data/sub"
echo kept >"$work/web/rootfs/data/sub/file"
ln -s sub/file "$work/web/rootfs/data/link"
chown 5:6 "$work/web/rootfs/data/sub/file"
chmod 4755 "$work/web/rootfs/data/sub/file"
chmod 1777 "$work/web/rootfs/data"
mounted '{"destination":"/data","type":"tmpfs","options":["tmpcopyup"]}' \
    sh -c 'cat /data/link; stat -c "%a %u %g" /data /data/sub/file; echo new >/data/new'
expect 'tmpcopyup copies the content of the mount point' 0 $'kept\n1777 0 0\n4755 5 6'
check 'the original stays as it was' not test -e "$work/web/rootfs/data/new"
mounted '{"destination":"/dev/mqueue","type":"mqueue","source":"mqueue","options":["nosuid"]}' \
    sh -c 'grep " /dev/mqueue " /proc/mounts'
check 'mqueue' grep -q '^mqueue .* mqueue rw,nosuid' "$work/out"
mounted '{"destination":"/sys/fs/cgroup","type":"cgroup","source":"cgroup","options":["ro","nosuid"]}' \
    sh -c 'cat /sys/fs/cgroup/cgroup.procs /sys/fs/cgroup/pids/cgroup.procs 2>/dev/null; mkdir /sys/fs/cgroup/x /sys/fs/cgroup/pids/x'
check 'cgroup shows the own group' grep -qx 1 "$work/out"
check 'read-only' grep -qi 'read-only' "$work/err"
for type in proc sysfs mqueue; do
    mounted '{"destination":"/mnt","type":"'$type'","source":"none","options":["rro","rnosuid","rnoexec","rnoatime"]}' \
        sh -c "$(options_of /mnt)"
    check "recursive flags of $type" test "$out" = ro,nosuid,noexec,noatime
done
mounted '{"destination":"/sys/fs/cgroup","type":"cgroup","source":"cgroup","options":["rro"]}' \
    sh -c "$(options_of /sys/fs/cgroup)"
check 'recursive flags of cgroup' grep -q '^ro' "$work/out"
mounted '{"destination":"/mnt/proc","type":"proc","source":"proc"}' sh -c 'ls -d /mnt/proc/1 && ls -d /mnt/proc/'$$
check 'proc shows the processes of the container only' test "$out" = /mnt/proc/1

# Names that lead elsewhere stay inside the root.
mkdir -p "$work/outside"
ln -s "$work/outside" "$work/web/rootfs/leads"
ln -s ../../../../../../../../../../../../../.."$work/outside" "$work/web/rootfs/climbs"
for name in leads climbs; do
    mounted "$(bind /$name/made bind)" cat "/$name/made/file"
    expect "a link that $name out ends inside" 0 host
done
check 'nothing was created outside' test -z "$(ls -A "$work/outside")"
rm -rf "$work/web/rootfs/proc"
ln -s data "$work/web/rootfs/proc"
mounted '{"destination":"/mnt","type":"tmpfs"}' true
refused 'procfs is not mounted over a symbolic link' '/proc'
umount "$work/host/below"

# A read-only /dev, and /proc at a symbolic link.
rm -rf "$work/web"
make_bundle web true
given '(.mounts[] | select(.destination == "/dev")).options += ["ro"]' \
    sh -c 'grep -o "^tmpfs /dev tmpfs ro," /proc/mounts; touch /dev/x 2>/dev/null || echo read-only
        echo >/dev/null; ls /dev/pts/ptmx'
expect 'a read-only /dev has devices and mounts' 0 $'tmpfs /dev tmpfs ro,\nread-only\n/dev/pts/ptmx'
mv "$work/web/rootfs/proc" "$work/web/rootfs/other"
ln -s other "$work/web/rootfs/proc"
given . true
refused 'a link is no place for proc' 'must be mounted on ordinary directory'
finish
