#!/usr/bin/env bash
# package.sh - builds the Debian packages in build/packages/debs and prints their names. Needs the
# packages installed by "install-deps.sh build package".
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build/packages

log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! {
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
        -DZNC_BUILD_TESTS=OFF -DZNC_BUILD_MAN=ON -DZNC_BUILD_PROGRAMS=ON &&
        cmake --build "$dir" && rm -rf "$dir/debs" && (cd "$dir" && cpack)
} >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
ls "$PWD/$dir/debs"/*.deb
