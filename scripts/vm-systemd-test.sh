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
only_amd64
if [[ ! -x $build/bin/zncrun ]]; then
    printf 'vm-systemd-test.sh: build %s first\n' "$build/bin/zncrun" >&2
    exit 1
fi
scripts/install-deps.sh vm

system=$(debian_tree systemd systemd,systemd-sysv,dbus,jq)
kernel=$(fetch_kernel)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
copy_debian "$system" "$tree" './usr/share/perl*' './usr/lib/x86_64-linux-gnu/perl*'
add_systemd "$tree" tests/system/oci/systemd_machine.sh
for unit in systemd-journald.service systemd-journald.socket systemd-journald-dev-log.socket \
    systemd-journald-audit.socket; do
    ln -sf /dev/null "$tree/etc/systemd/system/$unit"
done
install "$build/bin/zncrun" -t "$tree/tests"
add_libraries "$build/bin/zncrun" "$tree"
pack "$tree" "$work/initrd"

failed=0
for version in "${@:-v2 v1}"; do
    for one in $version; do
        words=
        [[ $one == v2 ]] || words="systemd.unified_cgroup_hierarchy=0 systemd.legacy_systemd_cgroup_controller=1"
        printf '# systemd with cgroup %s\n' "$one"
        start_systemd "$limit" "$kernel" "$work/initrd" systemd_machine "$words" || failed=1
    done
done
exit "$failed"
