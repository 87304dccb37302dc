#!/usr/bin/env bash
# vm-test.sh [amd64|arm64] [TEST...] - runs tests of containers by ctest in a virtual machine: of namespaces, overlay
# devices, control groups, filters of system calls and security labels, and of zncd, zncctl and zncrun. With names
# (patterns of ctest -R) it runs these tests instead. The machine has the kernel of Debian 12 and packages of it, and
# only cgroup v2, with all controllers. It is emulated in software and starts from memory, so that this does not need
# root except to install packages. The tests of arm64 are built with "scripts/cross-test.sh --build arm64". Prints a line
# for each test program, the reason of each skip, and the sums, and ends with 0 if all passed.
#
# BUILD: the build directory, build/release by default, for arm64 build/cross/arm64/build. VM_KERNEL: another kernel, a
# package (such as linux-image-6.12-cloud-amd64) or the file of one. VM_TEST_SECONDS: how long the machine may run.
# Kernel and packages are kept in build/vm.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/vm-lib.sh

if [[ ${1-} == amd64 || ${1-} == arm64 ]]; then
    machine=$1
    shift
fi
only_amd64
strip=strip build=build/release
if [[ $machine == arm64 ]]; then
    strip=aarch64-linux-gnu-strip build=build/cross/arm64/build
fi
build=$(realpath "${BUILD:-$build}")
tests=("$@")
# A control group without zncd, and everything that makes namespaces.
[[ $# -gt 0 ]] || tests=('(cgroup|overlay|ns|seccomp|engine)_.*' 'mount_table_test' 'msgq.*' 'keeper_link_test'
    'requirement_test' 'process.*' 'overlay_test' 'ns_test' 'cgroup_test'
    'oci_(lifecycle|hooks|users|exec|settings|mounts|escape|guards|ready|seccomp|group_test)'
    'cli_(lifecycle|daemon|run|options|ps|cp|exec|control|image|streams)' 'containers_test' 'daemon_ends_test'
    'probe_test')
pattern="^($(IFS='|' && printf '%s' "${tests[*]}"))\$"
scripts/install-deps.sh vm
[[ $machine == amd64 ]] || scripts/install-deps.sh cross

# needed: the files of the build that the tests name.
needed() {
    ctest --test-dir "$build" -R "$pattern" --show-only=json-v1 |
        jq -r '.tests[] | .command[]?, (.properties[]? | select(.name == "ENVIRONMENT").value[] | sub("^[^=]*="; ""))' |
        sort -u | while read -r file; do
        [[ $file != "$build"/* || -d $file ]] || printf '%s\n' "$file"
    done
}
mapfile -t files < <(needed)
files+=("$build"/bin/{zncd,zncctl,zncctl-import,zncrun})
for file in "${files[@]}"; do
    [[ -x $file ]] || {
        printf 'vm-test.sh: build %s first\n' "$file" >&2
        exit 1
    }
done

packages=(base-files base-passwd bash bsdutils busybox-static bzip2 cmake coreutils dash diffutils e2fsprogs findutils
    gawk grep gzip hostname iproute2 jq libcap2-bin libarchive13 libcjson1 libfmt9 libisal2 libmbedcrypto7 libnettle8
    libseccomp2 libsystemd0 mount passwd procps python3 sed skopeo strace tar uidmap umoci util-linux xz-utils zlib1g
    zstd)
system=$(tree_for "$machine" "$PWD/build/vm/system-$machine" "${packages[@]}")
kernel=$(fetch_kernel)
apparmor=$(fetch apparmor apparmor)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
copy_debian "$system" "$tree" './usr/share/perl*' './usr/lib/*/perl*'
mkdir -p "$tree"/{dev,mnt,proc,sys,tmp,modules}
# What the packages would do when they are installed.
cp "$system/usr/share/base-passwd/passwd.master" "$tree/etc/passwd"
cp "$system/usr/share/base-passwd/group.master" "$tree/etc/group"
printf 'machine\n' >"$tree/etc/hostname"
printf 'root:*:0:0:99999:7:::\n' >"$tree/etc/shadow"
chmod 0640 "$tree/etc/shadow"
ln -s gawk "$tree/usr/bin/awk"

# The sources and what was built, by the same paths.
mkdir -p "$tree$PWD" "$tree$build/bin"
tar --exclude-vcs --exclude=./build -cf - . | tar -C "$tree$PWD" -xf -
for file in "${files[@]}"; do "$strip" -o "$tree$file" "$file"; done
mkdir -p "$tree$build/lib"
"$strip" -o "$tree$build/lib/libzncontainer.so.1" "$build/lib/libzncontainer.so.1"
# An emulated machine is ten or more times as slow.
(cd "$build" && find . -name CTestTestfile.cmake -exec cp --parents '{}' "$tree$build" \;)
find "$tree$build" -name CTestTestfile.cmake -exec sed -i 's/ TIMEOUT "[0-9]*"/ TIMEOUT "3600"/' '{}' +

# Overlays, a disk in memory, and networks.
for module in overlay brd dummy tun; do put_module "$kernel" "$module" "$tree/modules"; done
"$apparmor"/sbin/apparmor_parser --skip-kernel-load --features-file="$apparmor/etc/apparmor.d/abi/3.0" \
    --ofile="$tree/root/apparmor.policy" <<'EOF'
profile zn-test flags=(attach_disconnected) {
    file,
    capability,
    network,
    signal,
    deny /tmp/denied w,
}
EOF

# The first program. The initial file system cannot be left by pivot_root, which the tests need, so
# everything moves to a tmpfs.
cat >"$tree/init" <<'EOF'
#!/bin/busybox sh
export PATH=/usr/sbin:/usr/bin
busybox mkdir /newroot
busybox mount -t tmpfs -o mode=0755,size=90% tmpfs /newroot
for entry in /*; do
    [ "$entry" = /newroot ] || busybox cp -a "$entry" /newroot/
done
exec busybox switch_root /newroot /second
EOF
cat >"$tree/second" <<EOF
#!/bin/bash
build=$build source=$PWD pattern='$pattern'
EOF
cat >>"$tree/second" <<'EOF'
export PATH=/usr/sbin:/usr/bin HOME=/root GTEST_COLOR=no
export ZNC_TEST_DISK=/disk ZNC_APPARMOR_POLICY=/root/apparmor.policy
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm /disk
ln -s /proc/self/fd /dev/fd
for stream in stdin:0 stdout:1 stderr:2; do ln -s "fd/${stream#*:}" "/dev/${stream%:*}"; done
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t cgroup2 cgroup2 /sys/fs/cgroup
mount -t tmpfs -o mode=1777 tmpfs /tmp
busybox insmod /modules/overlay.ko
busybox insmod /modules/tun.ko
busybox insmod /modules/dummy.ko numdummies=0
busybox insmod /modules/brd.ko rd_nr=2 rd_size=262144
mke2fs -q -t ext4 /dev/ram1
mount -t ext4 /dev/ram1 /disk
ip link set lo up
printf 'kernel %s of %s, controllers: %s\n' "$(uname -r)" "$(uname -m)" "$(cat /sys/fs/cgroup/cgroup.controllers)"
if ! ZNC_BASE=/ram0 "$build/bin/zncd" check; then
    printf 'not ok - the kernel has all that is required\nvm-test ended with 1\n'
    busybox poweroff -f
fi
printf 'ok - the kernel has all that is required\n'
ctest --test-dir "$build" -R "$pattern" -j 2 --output-on-failure --no-tests=error --output-junit /root/results.xml \
    --test-output-size-passed 50000000 --test-output-size-failed 50000000 </dev/null
python3 "$source/scripts/count-tests.py" --each /root/results.xml
printf 'vm-test ended with %d\n' $?
busybox poweroff -f
EOF
chmod 0755 "$tree/init" "$tree/second"
pack "$tree" "$work/initrd"

log=$work/log
VM_TEST_MEMORY=${VM_TEST_MEMORY:-4096} start_machine "${VM_TEST_SECONDS:-7200}" "$kernel" "$work/initrd" '' | tee "$log"
grep -qx 'vm-test ended with 0' "$log"
