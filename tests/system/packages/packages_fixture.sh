#!/usr/bin/env bash
# packages_fixture.sh - makes the root of packages_install.sh in ZNC_TEST_CACHE: a Debian system as
# debootstrap makes it (images_fixture.sh), and in its package cache what our packages depend on. Made
# again when that changes. Needs root, a Debian mirror, and the packages (packages_build.sh).
set -euo pipefail

debs_dir=${ZNC_DEBS:-${ZNC_BUILD_DIR:?the build with the packages}/debs}
cd "${ZNC_TEST_CACHE:-${ZNC_TEST_CACHE_DEFAULT:?the directory of the images}}"

wanted=$(for deb in "$debs_dir"/*.deb; do dpkg-deb --field "$deb" Depends; done)
if [[ ! -e packages-root.done || $(<packages-root.done) != "$wanted" ]]; then
    rm -rf packages-root packages-root.done
    cp -a root packages-root
    mkdir packages-root/debs
    cp "$debs_dir"/*.deb packages-root/debs
    debs=(packages-root/debs/*.deb)
    debs=("${debs[@]#packages-root/}")
    resolver=packages-root/etc/resolv.conf
    cp -L /etc/resolv.conf "$resolver"
    {
        chroot packages-root apt-get -q update
        chroot packages-root apt-get -qy install --download-only --no-install-recommends \
            "${debs[@]/#//}"
    } >packages.log 2>&1 || {
        tail -n 20 packages.log >&2
        exit 1
    }
    rm -rf packages-root/debs "$resolver"
    printf '%s\n' "$wanted" >packages-root.done
fi
printf 'ok - a clean Debian root with what the packages depend on\n'
