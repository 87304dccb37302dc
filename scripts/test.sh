#!/usr/bin/env bash
# test.sh [--quick] - everything that must hold, from a bare Debian 12, as root: installs what it
# needs, checks the sources, builds with both compilers, runs all tests, also under the sanitizers.
# --quick leaves out the second compiler, the analysers, fuzzing and the sanitizers. The last line is
# "N passed, N failed, N skipped", summed over all runs; a failed step counts as a failed test.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=
case ${1-} in
'') ;;
--quick) quick=1 ;;
*)
    printf 'usage: test.sh [--quick]\n' >&2
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

# step NAME COMMAND...: a step that passes or fails as a whole; its output is shown when it fails. A
# failed one does not keep the others from running: it is in the sum, and in `ok` (empty).
step() {
    local name=$1 log start=$SECONDS
    shift
    log=$(mktemp)
    ok=
    if "$@" >"$log" 2>&1; then
        ok=1
        printf 'ok - %s (%d s)\n' "$name" $((SECONDS - start))
    else
        printf 'not ok - %s\n' "$name"
        cat "$log"
        failed=$((failed + 1))
    fi
    rm -f "$log"
}

# sources NAME-PATTERN...: the files of these names, NUL behind each.
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

build_and_test() {
    step "builds with preset $1" configured_and_built "$1"
    if [[ -n $ok ]]; then suite "$1"; fi
}

# suite PRESET: runs all tests of a build and adds up what they say.
suite() {
    local results=$PWD/build/$1/results.xml counts p f s start=$SECONDS green=1
    rm -f "$results"
    ctest --preset "$1" -j "$jobs" --no-tests=error --output-junit "$results" \
        --test-output-size-passed 50000000 --test-output-size-failed 50000000 || green=
    counts=$(scripts/count-tests.py "$results") || counts='0 1 0'
    read -r p f s <<<"$counts"
    if [[ -z $green && $f -eq 0 ]]; then f=1; fi
    passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
    printf '%s: %d passed, %d failed, %d skipped (%d s)\n' "$1" "$p" "$f" "$s" $((SECONDS - start))
}

scripts/install-deps.sh build test

# The system images of the tests are made once for all builds.
export ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-$PWD/build/testcache}

step 'sources are formatted' formatted
step 'shell scripts have no findings' shell_scripts
build_and_test release
if [[ -z $quick ]]; then
    step 'builds with preset clang' configured_and_built clang
    step 'the analysers have no findings' scripts/analyse.sh
    step 'the fuzz targets find nothing in a short run' scripts/fuzz.sh 5
    export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1
    build_and_test asan-ubsan
    build_and_test tsan
fi

printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[[ $failed -eq 0 ]]
