#!/usr/bin/env bash
# packages_build.sh - packs the existing build and checks the packages with lintian. They are kept in the build's
# directory "debs" for the other tests. With ZNC_DEBS, checks the packages in that directory instead.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

if [[ -z ${ZNC_DEBS-} ]]; then
    check 'the build is packed' "$source_dir/scripts/package.sh" "$ZNC_BUILD_DIR"
fi
cd "$debs"
names() { dpkg-deb --field "$1"_*.deb Package; }
for package in libzncontainer1 libzncontainer-dev zncontainer-tools zncontainer-import zncontainer-oci; do
    check "$package is one of them" prints "$package" names "$package"
done
count() { find . -name '*.deb' | wc -l; }
check 'there are no others' prints 5 count

# The changelog's version is that of the project, and of all packages.
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source_dir/debian/changelog")
check 'the changelog ends with the version of the project' prints "${version%-*}" project_version

field() { dpkg-deb --field "$1"_*.deb "$2" | tr ',' '\n' | sed 's/^ *//' | grep -E "$3"; }
check 'the tools need the library of their version' \
    prints "libzncontainer1 (= $version)" field zncontainer-tools Depends '^libzncontainer1 \(= '
check 'the development files need the library of their version' \
    prints "libzncontainer1 (= $version)" field libzncontainer-dev Depends '^libzncontainer1 '
needs_archives() { dpkg-deb --field "$1"_*.deb Depends | grep -o libarchive13; }
check 'only the import needs libarchive' prints libarchive13 needs_archives zncontainer-import
for package in libzncontainer1 zncontainer-tools zncontainer-oci; do
    check "$package does not" not needs_archives "$package"
done
control_file() { dpkg-deb --ctrl-tarfile "$1"_*.deb | tar -xO "./$2"; }
shlibs() { control_file libzncontainer1 shlibs; }
check 'programs linked with the library need its package' prints "libzncontainer 1 libzncontainer1 (>= ${version%-*})" shlibs
since() { control_file libzncontainer1 symbols | sed -n "s/^ $1@ZNCONTAINER_1 //p"; }
check 'those that use old functions only run with 1.0' prints 1.0.0 since zncCreate
check 'those that use new functions do not' prints 1.1.0 since zncStartPid
postinst() { control_file zncontainer-tools postinst >"$work/postinst" && grep "$1" "$work/postinst"; }
check 'the daemon is enabled by a generated script' postinst 'deb-systemd-helper enable .*zncd.service'
check 'it is started and restarted by no generated script' not postinst '_dh_action'
stopped_by() {
    local script
    for script in preinst postinst prerm postrm; do
        control_file zncontainer-tools $script >"$work/script" 2>&1 && grep -q 'deb-systemd-invoke stop' "$work/script" &&
            printf '%s\n' $script
    done
    return 0
}
check 'it is stopped by no script but that for a removal' prints prerm stopped_by

check 'lintian finds no errors and warnings' lintian --allow-root --fail-on error,warning ./*.deb
binaries() {
    local deb
    for deb in libzncontainer1_*.deb zncontainer-tools_*.deb zncontainer-import_*.deb zncontainer-oci_*.deb; do
        dpkg-deb --extract "$deb" "$work/packed" || return
    done
    find "$work/packed" -name 'libzncontainer.so.1.*' -o -path '*bin/zncctl' -o -path '*bin/zncd' -o -path '*bin/zncrun' \
        -o -path '*libexec/zncontainer/zncctl-import'
}
count_binaries() { binaries | wc -l; }
check 'a library and four programs are packed' prints 5 count_binaries
stripped() {
    local file
    for file in $(binaries); do
        readelf --wide --sections "$file" >"$work/sections" || return
        not grep -q "[.]symtab" "$work/sections" || return
    done
}
check 'the packed files are stripped' stripped
names_build() { binaries | xargs readelf --dynamic | grep -E 'RUNPATH|RPATH'; }
check 'they look for libraries where the system has them' not names_build
finish
