#!/usr/bin/env bash
# vm-systemd-test.sh [v1|v2]... - tests zncrun --systemd-cgroup with systemd itself, in a virtual machine
# where it is the first process, with cgroup v2 and with v1, or one of them. The machine consists of Debian
# 12's kernel for clouds and of its packages systemd and dbus; it is emulated in software and starts from
# memory. Prints what the tests print and ends with 0 if all passed. Needs root, to unpack the packages.
#
# BUILD: the build directory, build/release by default. Packages are kept in build/vm.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/vm-lib.sh

build=${BUILD:-build/release}
limit=${VM_TEST_SECONDS:-600}
if [[ $(dpkg --print-architecture) != amd64 ]]; then
    printf 'vm-systemd-test.sh: only amd64 is supported\n' >&2
    exit 1
fi
if [[ ! -x $build/bin/zncrun ]]; then
    printf 'vm-systemd-test.sh: build %s first\n' "$build/bin/zncrun" >&2
    exit 1
fi
scripts/install-deps.sh vm

# The packages are unpacked once; an unfinished tree is made again.
system=$PWD/build/vm/systemd
if [[ ! -e $system/complete ]]; then
    rm -rf "$system"
    mkdir -p "$system"
    debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,jq bookworm "$system/tree" >&2
    touch "$system/complete"
fi
kernel=$(fetch_kernel)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
mkdir "$tree"
tar -C "$system/tree" --exclude=./usr/share/{doc,man,locale,info,zoneinfo,perl\*} --exclude=./var/{cache,lib/apt} \
    --exclude=./usr/lib/x86_64-linux-gnu/{perl,gconv}\* --exclude=./dev -cf - . | tar -C "$tree" -xf -
mkdir -p "$tree"/{dev,tests}
install -D "$build/bin/zncrun" tests/support/checks.sh tests/system/oci/systemd_machine.sh /bin/busybox -t "$tree/tests"
while read -r library; do
    [[ -e $tree$library ]] || install -D "$library" "$tree$library"
done < <(ldd "$build/bin/zncrun" | grep -o '/[^ ]*' | sort -u)

# The initial file system cannot be left by pivot_root, which zncrun needs, so everything moves to a tmpfs.
cat >"$tree/init" <<'EOF'
#!/tests/busybox sh
busybox=/tests/busybox
$busybox mkdir /newroot
$busybox mount -t tmpfs -o mode=0755 tmpfs /newroot
for entry in bin etc lib lib32 lib64 libx32 sbin usr var tests root run; do
    if [ -e "/$entry" ]; then $busybox cp -a "/$entry" /newroot/; fi
done
$busybox mkdir -p /newroot/dev /newroot/proc /newroot/sys /newroot/tmp
exec $busybox switch_root /newroot /lib/systemd/systemd
EOF
chmod 0755 "$tree/init"
units=$tree/etc/systemd/system
cat >"$units/tests.service" <<'EOF'
[Unit]
Requires=dbus.service
After=dbus.service basic.target
[Service]
Type=oneshot
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS0
ExecStart=/bin/bash /tests/systemd_machine.sh
ExecStopPost=/bin/systemctl --no-block --force --force poweroff
EOF
printf '[Unit]\nRequires=basic.target tests.service\n' >"$units/tests.target"
for unit in systemd-journald.service systemd-journald.socket systemd-journald-dev-log.socket \
    systemd-journald-audit.socket systemd-logind.service systemd-timesyncd.service; do
    ln -sf /dev/null "$units/$unit"
done
pack "$tree" "$work/initrd"

failed=0
for version in "${@:-v2 v1}"; do
    for one in $version; do
        words="systemd.unit=tests.target systemd.show_status=0 systemd.log_level=err"
        [[ $one == v2 ]] || words+=" systemd.unified_cgroup_hierarchy=0 systemd.legacy_systemd_cgroup_controller=1"
        printf '# systemd with cgroup %s\n' "$one"
        VM_TEST_MEMORY=2048 start_machine "$limit" "$kernel" "$work/initrd" "$words" | tee "$work/log"
        grep -qx 'systemd_machine ended with 0' "$work/log" || failed=1
    done
done
exit "$failed"
