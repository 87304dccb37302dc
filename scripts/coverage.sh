#!/usr/bin/env bash
# coverage.sh [CTEST-OPTION...] - builds with counters, runs the tests (all, or those that the options
# choose, as in "-R Tar") and prints which part of each module's lines and branches they ran, and
# the lines that were not. Fails when a goal is missed: 95 % of the lines and 85 % of the branches of each
# module that reads what others wrote, 90 % of the lines of the library.
#
# A branch is each way out of a condition that g++ compiles without optimisation; those into the
# handling of exceptions, which the library is compiled without, do not count.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ $(id -u) -ne 0 ]]; then
    printf 'coverage.sh: the tests make namespaces and mounts; run it as root\n' >&2
    exit 1
fi
build=$PWD/build/coverage
jobs=${COVERAGE_JOBS:-$(nproc)}
mkdir -p "$build"
if ! { cmake --preset coverage && cmake --build --preset coverage -j "$jobs"; } >"$build/build.log" 2>&1; then
    cat "$build/build.log" >&2
    exit 1
fi
find "$build" -name '*.gcda' -delete
export ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-$PWD/build/testcache}
green=1
ctest --preset coverage -j "$jobs" --no-tests=error "$@" >"$build/tests.log" 2>&1 || green=
tail -n 5 "$build/tests.log"

part=()
[[ $# -eq 0 ]] || part=(part)
scripts/coverage-report.py "$build" "${part[@]}"
[[ -n $green ]]
