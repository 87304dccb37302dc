#!/usr/bin/env bash
# package.sh [--arch arm64] [BUILD] - builds the Debian packages in build/packages/debs and prints their names. With the
# directory of a build, packs that build in BUILD/debs. dpkg-buildpackage makes the same packages, with dpkg's
# flags for the compiler and a full build each time. Needs the packages installed by "install-deps.sh build
# package"; packages for arm64 are made with Debian's cross compiler ("install-deps.sh cross"), in build/packages-arm64.
set -euo pipefail
cd "$(dirname "$0")/.."
log=$(mktemp)
trap 'rm -f "$log"' EXIT

kind=() words=() root=
built=build/packages
if [[ ${1-} == --arch ]]; then
    architecture=${2:?the processor}
    shift 2
    root=$(scripts/cross-root.sh "$architecture")
    built+=-$architecture
    kind=("-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchains/$architecture.cmake")
    words=(dpkg-architecture "-a$architecture" --force --command)
fi
built=${1-$built}
mkdir -p "$built"
built=$(realpath "$built")
build() {
    local options
    mapfile -t options < <(debian/rules --silent options)
    cmake -S . -B "$built" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr "${kind[@]}" "${options[@]}" && cmake --build "$built"
}

# In a copy of debian/: the tree of each package is made there.
pack() (
    rm -rf "$built/packing" "$built/debs"
    mkdir -p "$built/packing" "$built/debs"
    cp -a debian docs NEWS.md README.md SECURITY.md "$built/packing" && cd "$built/packing" || return
    [[ -z $root ]] || cp "$root/../shlibs" debian/shlibs.local
    "${words[@]}" debian/rules binary ZNC_BUILT="$built" ZNC_DEBS="$built/debs" ZNC_SYSROOT="$root"
)
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH-$(dpkg-parsechangelog --show-field Timestamp)}
export SOURCE_DATE_EPOCH DEB_RULES_REQUIRES_ROOT=no DEB_BUILD_OPTIONS=noautodbgsym
if ! { { [[ $# -gt 0 ]] || build; } && pack; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
rm -rf "$built/packing"
ls "$built"/debs/*.deb
