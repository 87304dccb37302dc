#!/usr/bin/env bash
# vm-rootless-test.sh - tests podman with zncrun as an ordinary user who has a service manager of his own, in a virtual
# machine with cgroup v2 where systemd is the first process: podman lets the user's systemd make the control groups. The
# machine consists of Debian 12's kernel for clouds and of its packages systemd, podman and what they need; it is
# emulated in software and starts from memory. Prints what the tests print and ends with 0 if all passed. Needs root, to
# unpack the packages.
#
# BUILD: the build directory, build/release by default. Packages are kept in build/vm.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/vm-lib.sh

build=${BUILD:-build/release}
only_amd64
if [[ ! -x $build/bin/zncrun ]]; then
    printf 'vm-rootless-test.sh: build %s first\n' "$build/bin/zncrun" >&2
    exit 1
fi
scripts/install-deps.sh vm

system=$(debian_tree rootless systemd,systemd-sysv,dbus,dbus-user-session,libpam-systemd,uidmap,podman,jq)
kernel=$(fetch_kernel)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
copy_debian "$system" "$tree" './usr/share/perl*' './usr/lib/x86_64-linux-gnu/perl*'
add_systemd "$tree" tests/system/oci/rootless_machine.sh
rm "$tree/etc/systemd/system/systemd-logind.service" # the user's manager needs it
install tests/system/oci/rootless_machine_user.sh "$build/bin/zncrun" -t "$tree/tests"
add_libraries "$build/bin/zncrun" "$tree"
pack "$tree" "$work/initrd"
VM_TEST_MEMORY=${VM_TEST_MEMORY:-3072} start_systemd "${VM_TEST_SECONDS:-900}" "$kernel" "$work/initrd" rootless_machine
