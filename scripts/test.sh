#!/usr/bin/env bash
# test.sh [--quick|--all] - the complete test run, on a minimal Debian 12, as root: installs
# dependencies, checks the sources, builds with both compilers, runs all tests, also with the
# sanitizers, and builds in the other ways that users do. --quick leaves out the second compiler,
# the analysers, the other ways to build, fuzzing and the sanitizers. --all tests every fault point
# (failing system calls, kills, models) instead of a sample, fuzzes each target for ten minutes, and
# tests on cgroup v2 in a virtual machine; it takes hours. The last line is "N passed, N failed, N
# skipped", summed over all runs; a failed step counts as a failed test.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=
all=
case ${1-} in
'') ;;
--quick) quick=1 ;;
--all) all=1 ;;
*)
    printf 'usage: test.sh [--quick|--all]\n' >&2
    exit 64
    ;;
esac
if [[ $(id -u) -ne 0 ]]; then
    printf 'test.sh: the tests make namespaces and mounts; run it as root\n' >&2
    exit 1
fi

jobs=$(nproc)
passed=0
failed=0
skipped=0
ok=

# step NAME COMMAND...: runs a step that passes or fails as a whole, and prints its output if it
# fails. After a failure the other steps still run; `ok` is empty then, and the failure is counted.
step() {
    begin "$@"
    finish
}

# begin NAME COMMAND...: starts a step in the background, only one at a time; finish waits for it.
# begin_beside starts it with a lower CPU priority. Not the lowest: a process that is preempted inside
# the kernel would keep others from changing network namespaces for seconds.
begin() {
    begun=$1 begun_at=$SECONDS begun_log=$(mktemp)
    shift
    (
        renice -n "${niceness:-0}" "$BASHPID" >/dev/null
        "$@"
    ) >>"$begun_log" 2>&1 &
    begun_pid=$!
}
begin_beside() { niceness=5 begin "$@"; }

# Prints the output of a failed step; the "ok" lines of its rows are always printed.
finish() {
    ok=
    if wait "$begun_pid"; then
        ok=1
        grep '^ok - ' "$begun_log" || [[ $? -eq 1 ]]
        printf 'ok - %s (%d s)\n' "$begun" $((SECONDS - begun_at))
    else
        printf 'not ok - %s\n' "$begun"
        cat "$begun_log"
        failed=$((failed + 1))
    fi
    rm -f "$begun_log"
}

# sources NAME-PATTERN...: prints the names of matching source files, each followed by NUL.
sources() {
    local tests=(-false) pattern
    for pattern in "$@"; do tests+=(-o -name "$pattern"); done
    find . \( -path ./.git -o -path ./build -o -path './build-*' \) -prune -o \
        -type f \( "${tests[@]}" \) -print0
}

formatted() {
    sources '*.cpp' '*.hpp' '*.c' '*.h' | xargs -0 clang-format --dry-run -Werror
}

shell_scripts() {
    sources '*.sh' run | xargs -0 shellcheck --external-sources --source-path=SCRIPTDIR
}

configured_and_built() {
    cmake --preset "$1" && cmake --build --preset "$1" -j "$jobs"
}

analysed_and_built_otherwise() {
    local good=1
    scripts/analyse.sh || good=
    scripts/build-matrix.sh ${all:+--all} || good=
    [[ -n $good ]]
}

# suite PRESET: runs all tests of a build and adds up the results.
suite() {
    local results=$PWD/build/$1/results.xml counts p f s start=$SECONDS green=1 selection=()
    rm -f "$results"
    if [[ $1 == tsan && -z $all ]]; then
        printf 'tsan: programs of one thread are left out (%s); --all runs them\n' \
            "$(ctest --preset tsan -N -L one_thread | sed -n 's/^Total Tests: //p')"
        selection=(--label-exclude one_thread)
    fi
    ctest --preset "$1" "${selection[@]}" -j "$jobs" --no-tests=error --output-junit "$results" \
        --test-output-size-passed 50000000 --test-output-size-failed 50000000 || green=
    counts=$(scripts/count-tests.py "$results") || counts='0 1 0'
    read -r p f s <<<"$counts"
    if [[ -z $green && $f -eq 0 ]]; then f=1; fi
    passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
    printf '%s: %d passed, %d failed, %d skipped (%d s)\n' "$1" "$p" "$f" "$s" $((SECONDS - start))
}

scripts/install-deps.sh build test
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# The system images for the tests are made once for all builds.
export ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-$PWD/build/testcache}
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1
if [[ -n $all ]]; then # sizes of the full runs; the defaults are samples
    export ZNC_TEST_ALL=1 LOAD_SPAWNS=1000 LOAD_CREATES=2000 LOAD_REQUESTS=500 HOSTILE_MESSAGES=300000 \
        RACE_ROUNDS=200 STORM_LIVES=500 DIFFERENTIAL_DOCUMENTS=20000 CORPUS_FLIPS=100000 PROBE_FLIPS=100000
fi

step 'sources are formatted' formatted
step 'shell scripts have no findings' shell_scripts
step 'builds with preset release' configured_and_built release
# The container tests run one at a time and are mostly waiting, so the next build runs at the same
# time.
if [[ -n $quick ]]; then
    if [[ -n $ok ]]; then suite release; fi
else
    built=$ok
    begin_beside 'builds with preset asan-ubsan' configured_and_built asan-ubsan
    if [[ -n $built ]]; then suite release; fi
    finish
    built=$ok
    begin_beside 'builds with preset tsan' configured_and_built tsan
    if [[ -n $built ]]; then suite asan-ubsan; fi
    finish
    built=$ok
    begin_beside 'the analysers find nothing, and every way to build works' analysed_and_built_otherwise
    if [[ -n $built ]]; then suite tsan; fi
    finish
    export FUZZ_PRESET=asan-ubsan
    step 'the fuzz targets find nothing in a short run' scripts/fuzz.sh 5
fi
if [[ -n $all ]]; then
    FUZZ_PRESET=fuzz step 'the fuzz targets find nothing in a long run' scripts/fuzz.sh 600
    step 'tests pass on cgroup v2 and an older kernel in a virtual machine' scripts/vm-test.sh
    step 'zncrun makes scopes of systemd in a virtual machine' scripts/vm-systemd-test.sh
fi

printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[[ $failed -eq 0 ]]
