#!/usr/bin/env bash
# run.sh [--quick] [--pairs N] [--record] [--real-time] [--out DIRECTORY] [SCENE...] - compares the
# library with other programs and with floors, which do only the unavoidable work. Installs
# dependencies, builds, makes the images, runs the scenes and prints a table; the figures and charts are
# written to build/bench/results.
#
# --quick takes about two minutes and compares with bench/recorded.json. Everything runs with the
# usual scheduling, or with --real-time at real-time priority. Needs root, an otherwise idle machine
# and a Debian mirror. Leaves only build/bench; a Debian tree is cached there (or in ZNC_TEST_CACHE).
set -euo pipefail
cd "$(dirname "$0")/.."

build=$PWD/build/bench
export ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-$build/cache} PYTHONDONTWRITEBYTECODE=1

scripts/install-deps.sh build bench
mkdir -p "$build"
{
    cmake --preset bench
    cmake --build --preset bench --target bench
} >"$build/build.log" 2>&1 || {
    tail -n 20 "$build/build.log" >&2
    exit 1
}
[[ -e $ZNC_TEST_CACHE/root.done ]] || tests/system/images/images_fixture.sh >&2
trap 'rm -rf "$build/scratch"' EXIT
python3 bench/bench.py --build "$build" --root "$ZNC_TEST_CACHE/root" "$@"
