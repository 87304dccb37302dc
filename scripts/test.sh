#!/usr/bin/env bash
# test.sh [--quick|--all] - the complete test run, on a minimal Debian 12, as root: installs
# dependencies, checks the sources, builds with both compilers, runs all tests, also with the
# sanitizers, and builds in the other ways that users do. --quick leaves out the second compiler,
# the analysers, the other ways to build, fuzzing and the sanitizers. --all runs all tests with the
# sanitizers and clang-tidy on all files, tests every fault point (failing system calls, kills, models)
# instead of a sample, fuzzes each target for ten minutes, and tests on cgroup v2, on arm64 and with
# systemd in virtual machines; it takes hours. The last line is "N passed, N failed, N skipped", summed over all
# runs; a failed step counts as a failed test.
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

steps=$(mktemp -d)  # NAME.log and NAME.status of each step
declare -A number=() # of a step, by its name
beside=             # process group of the steps that run beside the tests

# signal_beside SIGNAL: sends it to the processes of the steps that run beside the tests, if any do.
signal_beside() {
    if [[ -n $beside ]] && kill -0 -- "-$beside" 2>/dev/null; then kill -s "$1" -- "-$beside"; fi
}
trap 'signal_beside TERM; signal_beside CONT; rm -rf "$steps"' EXIT

# step NAME COMMAND...: runs a step that passes or fails as a whole, and prints its output if it
# fails. After a failure the other steps still run; `ok` is empty then, and the failure is counted.
step() {
    number[$1]=${#number[@]}
    run_step "${number[$1]}" "${@:2}"
    finish "$1"
}

# run_step NUMBER COMMAND...
run_step() {
    local status=0 start=$SECONDS
    "${@:2}" >"$steps/$1.log" 2>&1 || status=$?
    printf '%s %s\n' "$status" $((SECONDS - start)) >"$steps/$1.new"
    mv "$steps/$1.new" "$steps/$1.status"
}

# begin_beside NAME FUNCTION...: runs these functions as steps, one after another, beside the tests and
# with a lower CPU priority. Not the lowest: a process that is preempted inside the kernel would keep
# others from changing network namespaces for seconds. Each step has the name of its function.
begin_beside() {
    local name
    for name in "$@"; do number[$name]=${#number[@]}; done
    set -m # a process group of its own, which can be stopped
    (
        renice -n 5 "$BASHPID" >/dev/null
        for name in "$@"; do run_step "${number[$name]}" "$name"; done
    ) </dev/null &
    beside=$!
    set +m
}

# finish STEP [NAME]: waits for the step. Prints the output of a failed one; the "ok" lines of its rows
# are always printed.
finish() {
    local file=$steps/${number[$1]} status=1 seconds=0
    ok=
    while [[ ! -e $file.status ]] && { [[ -z $beside ]] || kill -0 "$beside" 2>/dev/null; }; do sleep 0.2; done
    if [[ -e $file.status ]]; then read -r status seconds <"$file.status"; fi
    if [[ $status -eq 0 ]]; then
        ok=1
        grep '^ok - ' "$file.log" || [[ $? -eq 1 ]]
        printf 'ok - %s (%d s)\n' "${2-$1}" "$seconds"
    else
        printf 'not ok - %s\n' "${2-$1}"
        cat "$file.log"
        failed=$((failed + 1))
    fi
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

# configured_and_built PRESET [TARGET...]
configured_and_built() {
    local targets=("${@:2}")
    cmake --preset "$1" && cmake --build --preset "$1" -j "$jobs" ${targets:+--target "${targets[@]}"}
}

build_asan_ubsan() { configured_and_built asan-ubsan; }
build_tsan() {
    if [[ -n $all ]]; then configured_and_built tsan; else configured_and_built tsan thread_tests; fi
}
analyse() {
    if [[ -n $all ]]; then scripts/analyse.sh; else scripts/analyse.sh --recent 20; fi
}
build_otherwise() { scripts/build-matrix.sh ${all:+--all}; }

# run_again PRESET: runs the few programs that failed again, alone; what runs beside is stopped meanwhile.
# A program that passes now is counted by this run and named as unstable: it failed because other
# things ran at the same time, which is a fault to mend. More failures than a few are not run again.
run_again() {
    local failures status=0
    mapfile -t failures < <(scripts/count-tests.py --failed "$results")
    [[ ${#failures[@]} -ge 1 && ${#failures[@]} -le 5 ]] || return 1
    signal_beside STOP
    printf '%s: again, alone: %s\n' "$1" "${failures[*]}"
    ctest --preset "$1" -R "^($(IFS='|' && printf '%s' "${failures[*]}"))\$" -j 1 --no-tests=error \
        --output-junit "$results.again" --test-output-size-passed 50000000 \
        --test-output-size-failed 50000000 || status=$?
    signal_beside CONT
    return "$status"
}

# leave_out PRESET LABEL TEXT: lets the suite run without the tests that have this label.
leave_out() {
    selection=(--label-exclude "$2")
    printf '%s: %s are left out (%s); --all runs them\n' "$1" "$3" \
        "$(ctest --preset "$1" -N -L "$2" | sed -n 's/^Total Tests: //p')"
}

# suite PRESET: runs all tests of a build and adds up the results.
suite() {
    local results=$PWD/build/$1/results.xml counts p f s start=$SECONDS green=1 selection=() again=()
    rm -f "$results" "$results.again"
    case ${all:-$1} in
    tsan) leave_out "$1" one_thread 'tests of one thread' ;;
    asan-ubsan) leave_out "$1" long 'long tests of whole programs' ;;
    esac
    ctest --preset "$1" "${selection[@]}" -j "$jobs" --no-tests=error --output-junit "$results" \
        --test-output-size-passed 50000000 --test-output-size-failed 50000000 || green=
    if [[ -z $green ]] && run_again "$1"; then green=1; fi
    if [[ -e $results.again ]]; then again=("$results.again"); fi
    counts=$(scripts/count-tests.py "$results" "${again[@]}") || counts='0 1 0'
    read -r p f s <<<"$counts"
    if [[ -z $green && $f -eq 0 ]]; then f=1; fi
    passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
    printf '%s: %d passed, %d failed, %d skipped (%d s)\n' "$1" "$p" "$f" "$s" $((SECONDS - start))
}

scripts/install-deps.sh build test
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
    # Without these, nothing that uses precompiled or just created headers is cached.
    export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
fi

# The system images for the tests are made once for all builds.
export ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-$PWD/build/testcache}
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1
if [[ -n $all ]]; then # sizes of the full runs; the defaults are samples
    export ZNC_TEST_ALL=1 LOAD_SPAWNS=1000 LOAD_CREATES=2000 LOAD_REQUESTS=500 HOSTILE_MESSAGES=300000 \
        KILL_ROUNDS=200 RACE_ROUNDS=200 STORM_LIVES=500 DIFFERENTIAL_DOCUMENTS=20000 CORPUS_FLIPS=100000 \
        PROBE_FLIPS=100000
fi

step 'sources are formatted' formatted
step 'shell scripts have no findings' shell_scripts
step 'builds with preset release' configured_and_built release
if [[ -n $quick ]]; then
    if [[ -n $ok ]]; then suite release; fi
else
    # Many container tests run one at a time and mostly wait; the other builds use that time.
    built=$ok
    begin_beside build_asan_ubsan build_tsan analyse build_otherwise
    if [[ -n $built ]]; then suite release; fi
    finish build_asan_ubsan 'builds with preset asan-ubsan'
    if [[ -n $ok ]]; then suite asan-ubsan; fi
    finish build_tsan 'builds with preset tsan'
    if [[ -n $ok ]]; then suite tsan; fi
    finish analyse 'the analysers find nothing'
    finish build_otherwise 'every way to build works'
    export FUZZ_PRESET=asan-ubsan
    step 'the fuzz targets find nothing in a short run' scripts/fuzz.sh 5
fi
if [[ -n $all ]]; then
    FUZZ_PRESET=fuzz step 'the fuzz targets find nothing in a long run' scripts/fuzz.sh 600
    step 'tests pass on cgroup v2 and an older kernel in a virtual machine' scripts/vm-test.sh
    step 'builds for arm64' scripts/cross-test.sh --build arm64
    if [[ -n $ok ]]; then step 'tests pass on arm64 in a virtual machine' scripts/vm-test.sh arm64; fi
    step 'zncrun makes scopes of systemd in a virtual machine' scripts/vm-systemd-test.sh
    step 'podman of a user runs containers in a virtual machine' scripts/vm-rootless-test.sh
    step 'containers outlive zncd and upgrades in a virtual machine' scripts/vm-keep-test.sh
fi

printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[[ $failed -eq 0 ]]
