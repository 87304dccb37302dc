#!/usr/bin/env bash
# vm-keep-test.sh [DIRECTORY] - tests that containers outlive zncd --keep, and that an upgrade of the Debian packages
# ends none, in a virtual machine where systemd is the first process and dpkg installs the packages. It takes the
# packages of the directory, or makes them (package.sh), and makes a second version of them, which differs in its number
# only. The machine consists of Debian 12's kernel for clouds and of a minimal Debian; it is emulated in software and
# starts from memory. Prints what the tests print and ends with 0 if all passed. Needs root, to unpack the packages.
#
# Debian's packages are kept in build/vm. VM_TEST_SECONDS: how long the machine may run.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/vm-lib.sh

only_amd64
scripts/install-deps.sh vm
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
debs=${1-}
if [[ -z $debs ]]; then
    scripts/install-deps.sh build package
    scripts/package.sh >&2
    debs=build/packages/debs
fi

# What runs containers; zncontainer-import and -dev do not, and need many packages.
names=(libzncontainer1 zncontainer-tools zncontainer-oci)
mkdir -p "$tree"/tests/{first,second}
for name in "${names[@]}"; do cp "$debs/${name}"_*_amd64.deb "$tree/tests/first"; done
debs=("$tree"/tests/first/*.deb)
[[ ${#debs[@]} -eq ${#names[@]} ]] || {
    printf 'vm-keep-test.sh: there is more than one version of a package\n' >&2
    exit 1
}
version=$(dpkg-deb --field "${debs[0]}" Version)
for deb in "${debs[@]}"; do
    dpkg-deb --raw-extract "$deb" "$work/package"
    # Those of the test suite have another base.
    if [[ -e $work/package/usr/sbin/zncd ]] && ! grep -qF /var/lib/zncontainer "$work/package/usr/sbin/zncd"; then
        printf 'vm-keep-test.sh: %s was not made by package.sh or release.sh\n' "$deb" >&2
        exit 1
    fi
    sed -i "s/^Version: .*/Version: $version+next/; s/(= $version)/(= $version+next)/g" "$work/package/DEBIAN/control"
    dpkg-deb --root-owner-group -Znone --build "$work/package" "$tree/tests/second" >&2
    rm -rf "$work/package"
done

# Names only, without those of our own packages.
needed=$(for deb in "${debs[@]}"; do dpkg-deb --field "$deb" Depends; done | tr ',' '\n' |
    sed 's/^ *\([^ ]*\).*/\1/' | grep -vxF "$(printf '%s\n' "${names[@]}")" | sort -u | paste -sd ,)
system=$(debian_tree keep "systemd,systemd-sysv,dbus,jq,$needed")
kernel=$(fetch_kernel)
copy_debian "$system" "$tree"
add_systemd "$tree" tests/system/containers/keep_machine.sh
install -m 0644 "$(find "$kernel/lib/modules" -name overlay.ko)" -t "$tree/tests"

mkdir -p "$work"/layer/{bin,etc,proc,dev,sys}
cp /bin/busybox "$work/layer/bin"
for applet in sh sleep cat; do ln -s busybox "$work/layer/bin/$applet"; done
printf 'from the image\n' >"$work/layer/etc/greeting"
tar --format=ustar --owner=0 --group=0 -C "$work/layer" -cf "$work/layer.tar" .
image=$tree/tests/image
{
    umoci init --layout "$image"
    umoci new --image "$image:latest"
    umoci raw add-layer --image "$image:latest" "$work/layer.tar"
    umoci config --image "$image:latest" --os linux --architecture amd64 --config.workingdir / --config.env PATH=/bin
} >&2
pack "$tree" "$work/initrd"
start_systemd "${VM_TEST_SECONDS:-900}" "$kernel" "$work/initrd" keep_machine
