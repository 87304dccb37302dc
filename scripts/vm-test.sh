#!/usr/bin/env bash
# vm-test.sh [PROGRAM...] - runs the tests of control groups, also of zncrun's containers, of overlay
# devices, user namespaces and security labels, and further test programs by their paths, in a virtual
# machine: its kernel is that of Debian 12 and has only cgroup v2, with all controllers. The machine is
# emulated in software, so it does not need root except to install packages, and it starts from memory:
# Debian's kernel for clouds, busybox, the programs and their libraries, a profile for AppArmor. Each
# program runs in the sandbox of the tests. Prints what they print and ends with 0 if all passed.
#
# BUILD: the build directory, build/release by default. VM_KERNEL: another kernel, a package (such as
# linux-image-6.12-cloud-amd64) or the file of one. The kernel is kept in build/vm.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/vm-lib.sh

build=${BUILD:-build/release}
limit=${VM_TEST_SECONDS:-900}
only_amd64
programs=("$build"/bin/{cgroup,cgroup_limits,cgroup_files,cgroup_devices,oci_group}_test
    "$build"/bin/{mount_table,overlay,overlay_device,overlay_list,ns_control,ns_settings,ns_user,ns_label}_test
    "$@")
others=("$build"/bin/{znc_sandbox,zncd,zncrun})
for program in "${others[@]}" "${programs[@]}"; do
    if [[ ! -x $program ]]; then
        printf 'vm-test.sh: build %s first\n' "$program" >&2
        exit 1
    fi
done
scripts/install-deps.sh vm

# put FILE [DIRECTORY]: copies a file into the machine, by default to the same path.
put() {
    install -D "$1" "$tree${2-$(dirname "$1")}/$(basename "$1")"
}

# put_program FILE: copies a program and its libraries.
put_program() {
    put "$1" /tests
    add_libraries "$1" "$tree"
}

kernel=$(fetch_kernel)
apparmor=$(fetch apparmor apparmor)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
mkdir -p "$tree"/{dev,etc,mnt,proc,root,sys,tests,tmp,run,modules}
put /bin/busybox /bin
for program in "${others[@]}" "${programs[@]}"; do put_program "$program"; done
# Overlays, and a disk in memory.
for module in overlay brd; do put_module "$kernel" "$module" "$tree/modules"; done
"$apparmor"/sbin/apparmor_parser --skip-kernel-load --features-file="$apparmor/etc/apparmor.d/abi/3.0" \
    --ofile="$tree/tests/apparmor.policy" <<'EOF'
profile zn-test flags=(attach_disconnected) {
    file,
    capability,
    network,
    signal,
    deny /tmp/denied w,
}
EOF
for program in "${programs[@]}"; do basename "$program"; done >"$tree/tests/list"
printf 'root:x:0:0:root:/root:/bin/sh\n' >"$tree/etc/passwd"
printf 'root:x:0:\n' >"$tree/etc/group"

# The first program. The initial file system cannot be left by pivot_root, which the tests need, so
# everything moves to a tmpfs.
cat >"$tree/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mkdir /newroot
mount -t tmpfs -o mode=0755 tmpfs /newroot
for entry in bin etc lib lib64 mnt modules proc root run second sys tests tmp usr dev; do
    if [ -e "/$entry" ]; then cp -a "/$entry" /newroot/; fi
done
exec switch_root /newroot /second
EOF
cat >"$tree/second" <<'EOF'
#!/bin/busybox sh
export PATH=/bin HOME=/root GTEST_COLOR=no
export ZNC_TEST_DISK=/disk ZNC_APPARMOR_POLICY=/tests/apparmor.policy
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t cgroup2 cgroup2 /sys/fs/cgroup
mount -t tmpfs -o mode=1777 tmpfs /tmp
insmod /modules/overlay.ko
insmod /modules/brd.ko rd_nr=2 rd_size=32768
mke2fs /dev/ram1 >/dev/null
mkdir /disk
mount -t ext4 /dev/ram1 /disk
ip link set lo up
printf 'kernel %s, controllers: %s\n' "$(uname -r)" "$(cat /sys/fs/cgroup/cgroup.controllers)"
if ! ZNC_BASE=/ram0 /tests/zncd check; then
    printf 'not ok - the kernel has all that is required\nvm-test ended with 1\n'
    poweroff -f
fi
printf 'ok - the kernel has all that is required\n'
failed=0
while read -r name; do
    if /tests/znc_sandbox -- "/tests/$name" </dev/null; then
        printf 'ok - %s in a virtual machine\n' "$name"
    else
        printf 'not ok - %s in a virtual machine\n' "$name"
        failed=1
    fi
done </tests/list
printf 'vm-test ended with %d\n' "$failed"
poweroff -f
EOF
chmod 0755 "$tree/init" "$tree/second"
pack "$tree" "$work/initrd"

log=$work/log
start_machine "$limit" "$kernel" "$work/initrd" '' | tee "$log"
grep -qx 'vm-test ended with 0' "$log"
