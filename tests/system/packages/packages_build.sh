#!/usr/bin/env bash
# packages_build.sh - packages the existing build with cpack and checks the packages with lintian. They are
# kept in the build's directory "debs" for the other tests.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

cd "$ZNC_BUILD_DIR"
rm -rf debs
check 'cpack makes the packages' cpack
names() { dpkg-deb --field debs/"$1"_*.deb Package; }
for package in libzncontainer1 libzncontainer-dev zncontainer-tools zncontainer-import zncontainer-oci; do
    check "$package is one of them" prints "$package" names "$package"
done
count() { find debs -name '*.deb' | wc -l; }
check 'there are no others' prints 5 count

# The changelog's version is that of the project, and of all packages.
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source_dir/packaging/debian/changelog")
project_version() { sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' CMakeCache.txt; }
check 'the changelog ends with the version of the project' prints "${version%-*}" project_version

field() { dpkg-deb --field debs/"$1"_*.deb "$2" | tr ',' '\n' | sed 's/^ *//' | grep -E "$3"; }
check 'the tools need the library of their version' \
    prints "libzncontainer1 (= $version)" field zncontainer-tools Depends '^libzncontainer1 '
check 'the development files need the library of their version' \
    prints "libzncontainer1 (= $version)" field libzncontainer-dev Depends '^libzncontainer1 '
needs_archives() { dpkg-deb --field debs/"$1"_*.deb Depends | grep -o libarchive13; }
check 'only the import needs libarchive' prints libarchive13 needs_archives zncontainer-import
for package in libzncontainer1 zncontainer-tools zncontainer-oci; do
    check "$package does not" not needs_archives "$package"
done
shlibs() { dpkg-deb --ctrl-tarfile debs/libzncontainer1_*.deb | tar -xO ./shlibs; }
check 'programs linked with the library need its package' \
    prints "libzncontainer 1 libzncontainer1 (>= $version)" shlibs

# Packed again, later, in another directory.
packed_alike() {
    local deb compared=0
    cpack -D CPACK_OUTPUT_FILE_PREFIX="$work/again" || return
    for deb in debs/*.deb; do
        cmp "$deb" "$work/again/${deb#debs/}" || return
        compared=$((compared + 1))
    done
    [[ $compared -eq 5 ]]
}
check 'packed again they are the same bytes' packed_alike

check 'lintian finds no errors' lintian --allow-root --fail-on error debs/*.deb
binaries() {
    local deb
    for deb in debs/libzncontainer1_*.deb debs/zncontainer-tools_*.deb debs/zncontainer-import_*.deb \
        debs/zncontainer-oci_*.deb; do
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
