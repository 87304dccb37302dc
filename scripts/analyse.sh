#!/usr/bin/env bash
# analyse.sh [clang-tidy|cppcheck|gcc]... - the analysers over the sources, all of them without
# names: clang-tidy with the checks of .clang-tidy, cppcheck, and the analyser of gcc over what is
# written in C, the only language it knows well. Prints the findings and fails when there is one.
# shellcheck disable=SC2317 # what is called by way of quietly
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
failed=0

# quietly NAME COMMAND...: its output is shown only when it fails.
quietly() {
    local name=$1 log start=$SECONDS
    shift
    log=$(mktemp)
    if "$@" >"$log" 2>&1; then
        printf 'ok - %s (%d s)\n' "$name" $((SECONDS - start))
    else
        printf 'not ok - %s\n' "$name"
        cat "$log"
        failed=1
    fi
    rm -f "$log"
}

# Files that the build writes are analysed too, so they must be there. The build is that of the
# sanitizers: with clang, and there when all tests have run.
clang_tidy() {
    cmake --preset asan-ubsan &&
        cmake --build --preset asan-ubsan -j "$jobs" --target zncontainer zncd zncctl zncctl-import &&
        run-clang-tidy -quiet -j "$jobs" -p build/asan-ubsan \
            "^$PWD/(base|format|cli|container|daemon|front|import|platform)/.*\\.cpp\$"
}

# Switched off: what only says that something could be written in another way, what a file alone
# does not show (unused functions, missing headers), and those given in the sources with a reason.
run_cppcheck() {
    cppcheck --quiet --error-exitcode=1 --inline-suppr -j "$jobs" --std=c++20 \
        --enable=warning,performance,portability \
        --suppressions-list=cmake/cppcheck-suppressions.txt \
        --library=posix,gnu,cmake/cppcheck.cfg -D_GNU_SOURCE -D__x86_64__ -DZNC_INFLATE_ISAL -DZNC_VERSION='"1.0.0"' \
        -I container/runtime/include -I container/runtime/src -I platform/include -I platform/linux \
        -I . \
        base cli format container/runtime/src daemon front import platform
}

# Code in C: the exported version and the programs of the tests.
gcc_analyser() {
    local file good=1
    while IFS= read -r -d '' file; do
        gcc -std=c11 -O2 -fanalyzer -Wall -Wextra -Werror -D_GNU_SOURCE \
            -DZNC_SOURCE_DIR='"/"' -DZNC_BINARY_DIR='"/"' \
            -I container/runtime/include -I platform/include -I tests/support -I tests/support/probe \
            -c -o /dev/null "$file" || good=
    done < <(find base cli format container daemon front platform tests -name '*.c' -print0)
    [[ -n $good ]]
}

[[ $# -gt 0 ]] || set -- clang-tidy cppcheck gcc
for analyser in "$@"; do
    case $analyser in
    clang-tidy) quietly 'clang-tidy has no findings' clang_tidy ;;
    cppcheck) quietly 'cppcheck has no findings' run_cppcheck ;;
    gcc) quietly "gcc's analyser has no findings" gcc_analyser ;;
    *)
        printf 'usage: analyse.sh [clang-tidy|cppcheck|gcc]...\n' >&2
        exit 64
        ;;
    esac
done
exit "$failed"
