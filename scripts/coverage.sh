#!/usr/bin/env bash
# coverage.sh [CTEST-OPTION...] - builds with coverage counters, runs the tests (all, or those
# selected by the options, such as "-R Tar"), and prints the line and branch coverage of each module
# and the lines that were not executed. Fails below the goals: 95 % of the lines and 85 % of the
# branches of each module that parses untrusted input, 90 % of the lines of the library.
#
# A branch is an outcome of a condition as compiled without optimisation. Branches into exception
# handling are not counted; the library is compiled without exceptions.
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
