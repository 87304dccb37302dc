#!/usr/bin/env bash
# vm-arm64-test.sh - runs a container on arm64, in a virtual machine that is emulated in software, with Debian's
# kernel: "zncd check" finds all that is required, and examples/embed.c runs a program in namespaces and with a
# filter of system calls. Build with "scripts/cross-test.sh --build arm64" first. Kernel and busybox are kept in
# build/cross/arm64/machine.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/support/checks.sh
. tests/support/checks.sh

build=$PWD/build/cross/arm64/build
root=$(scripts/cross-root.sh arm64)
machine=$PWD/build/cross/arm64/machine
libraries=lib/aarch64-linux-gnu
if [[ ! -x $build/bin/zncd || ! -e $build/lib/libzncontainer.so ]]; then
    printf 'vm-arm64-test.sh: build with scripts/cross-test.sh --build arm64 first\n' >&2
    exit 1
fi
scripts/install-deps.sh vm cross

if [[ ! -e $machine/complete ]]; then
    rm -rf "$machine"
    mkdir -p "$machine"/{cache/archives/partial,state/lists/partial}
    touch "$machine/state/status"
    apt=(apt-get -q -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o "Dir::State=$machine/state"
        -o "Dir::State::status=$machine/state/status" -o "Dir::Cache=$machine/cache" -o APT::Sandbox::User=root
        -o Debug::NoLocking=1)
    # The kernels of all processors have the same version.
    kernel=$(apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: \(.*\)amd64$/\1arm64/p' | head -1)
    (cd "$machine" && "${apt[@]}" update && "${apt[@]}" download "$kernel" busybox-static &&
        for package in ./*.deb; do dpkg-deb --extract "$package" .; done && rm -rf ./*.deb cache state) >&2
    touch "$machine/complete"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
mkdir -p "$tree"/{bin,dev,proc,sys,tmp,run,modules,"$libraries",tests,newroot,bundle/rootfs/{bin,dev,proc,sys}}
cp "$machine/bin/busybox" "$tree/bin"
cp "$machine/bin/busybox" "$tree/bundle/rootfs/bin"
cp "$(find "$machine/lib/modules" -name overlay.ko)" "$tree/modules"
cp "$build/bin/zncd" "$tree/tests"
aarch64-linux-gnu-gcc --sysroot="$root" -Icontainer/runtime/include -o "$tree/tests/embed" examples/embed.c \
    -L"$build/lib" -lzncontainer -pthread -Wl,--allow-shlib-undefined
cp -L "$build/lib/libzncontainer.so.1" "$tree/$libraries"
for library in $(aarch64-linux-gnu-readelf -d "$build/lib/libzncontainer.so" "$tree"/tests/* |
    sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -v zncontainer | sort -u); do
    cp -L "$root/usr/$libraries/$library" "$tree/$libraries"
done
cp -L "$root/usr/$libraries/ld-linux-aarch64.so.1" "$tree/lib"

cat >"$tree/bundle/config.json" <<'EOF'
{"ociVersion": "1.0.2", "hostname": "arm", "root": {"path": "rootfs"},
 "process": {"args": ["/bin/busybox", "sh", "-c",
     "busybox uname -m; busybox ps; busybox grep -E '^(Seccomp|NoNewPrivs):' /proc/self/status"],
     "env": ["PATH=/bin"], "cwd": "/", "user": {"uid": 0, "gid": 0}},
 "mounts": [{"destination": "/proc", "type": "proc", "source": "proc"}],
 "linux": {"namespaces": [{"type": "pid"}, {"type": "mount"}, {"type": "ipc"}, {"type": "uts"}, {"type": "network"}]}}
EOF
# The initial file system cannot be left by pivot_root, so everything moves to a tmpfs.
cat >"$tree/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t tmpfs -o mode=0755 tmpfs /newroot
for entry in bin lib tests bundle modules dev proc sys run tmp second; do cp -a "/$entry" /newroot/; done
exec switch_root /newroot /second
EOF
cat >"$tree/second" <<'EOF'
#!/bin/busybox sh
export PATH=/bin ZNC_BASE=/ram0
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t cgroup2 cgroup2 /sys/fs/cgroup
insmod /modules/overlay.ko
mkdir -p /run/zarnel
chmod 0755 / /bundle /bundle/rootfs
/tests/zncd check
echo "zncd check ended with $?"
/tests/embed /bundle
echo "embed ended with $?"
poweroff -f
EOF
chmod 0755 "$tree/init" "$tree/second"
(cd "$tree" && find . -print0 | cpio --quiet --null --create --format=newc | gzip -1) >"$work/initrd"

timeout --foreground "${VM_TEST_SECONDS:-600}" qemu-system-aarch64 -M virt -cpu max -accel tcg -m 768 -nodefaults \
    -no-reboot -display none -serial stdio -kernel "$machine"/boot/vmlinuz-* -initrd "$work/initrd" \
    -append 'console=ttyAMA0 quiet panic=-1' </dev/null | tr -d '\r' | tee "$work/log"

said() { grep -qE "$1" "$work/log"; }
check 'arm64: the kernel has all that is required' said '^zncd check ended with 0$'
check 'arm64: a program runs in a container' said '^aarch64$'
check 'arm64: the keeper is its process 1' said '^ +1 .*zn-keeper'
check 'arm64: it cannot gain rights' said '^NoNewPrivs:.*1$'
check 'arm64: its system calls are filtered' said '^Seccomp:.*2$'
check 'arm64: the container is deleted' said '^embed ended with 0$'
finish_checks
