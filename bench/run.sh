#!/usr/bin/env bash
# run.sh [--quick] [--pairs N] [--record] [--out DIRECTORY] [SCENE...] - the library beside other
# programs and beside floors, which do the unavoidable work only. Installs what is missing, builds, makes
# the image, runs the scenes and prints one table; results.json and charts go to build/bench/results.
#
# --quick takes about two minutes and compares with bench/recorded.json. Needs root, a quiet machine and a
# Debian mirror. Nothing is left but build/bench; a Debian tree is kept there (or in ZNC_TEST_CACHE).
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
