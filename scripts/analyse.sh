#!/usr/bin/env bash
# analyse.sh [--recent COMMITS] [clang-tidy|cppcheck|gcc]... - runs the named static analysers (default:
# all): clang-tidy with the checks in .clang-tidy, cppcheck, and the analyser of gcc on the C sources, the
# only language that it supports well. Prints the findings and fails if there are any. With --recent,
# clang-tidy, which takes longer than a build, reads only the .cpp files that the last COMMITS commits changed.
# shellcheck disable=SC2317 # functions that are called by quietly
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
failed=0
recent=
if [[ ${1-} == --recent ]]; then
    recent=${2:?analyse.sh: --recent needs a number of commits}
    shift 2
fi
folders='base|format|cli|container|daemon|front|import|oci|platform'

# quietly NAME COMMAND...: runs the command and prints its output only if it fails.
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

# Generated sources are analysed too, so they must have been built. The build with clang and
# sanitizers is used, which exists after a full test run, but without its precompiled headers: a file
# that does not include what it needs is then a finding. Packages are built without them.
clang_tidy() {
    local patterns changed commands=build/asan-ubsan/without-pch
    { [[ -e build/asan-ubsan/build.ninja ]] || cmake --preset asan-ubsan; } &&
        cmake --build --preset asan-ubsan -j "$jobs" --target zncontainer zncd zncctl zncctl-import zncrun || return
    patterns=("^$PWD/($folders)/.*\\.cpp\$")
    if [[ -n $recent ]] && git rev-parse --quiet --verify "HEAD~$recent" >/dev/null; then
        changed=$(git diff --name-only --diff-filter=d "HEAD~$recent") || return
        changed=$(sed -nE "s#^(($folders)/.*)\\.cpp\$#^$PWD/\\1\\\\.cpp\$#p" <<<"$changed")
        [[ -n $changed ]] || return 0
        mapfile -t patterns <<<"$changed"
    fi
    mkdir -p "$commands"
    sed -E 's/ -Xclang -include(-pch)? -Xclang [^ ]*cmake_pch[^ ]*//g' build/asan-ubsan/compile_commands.json \
        >"$commands/compile_commands.json" || return
    if grep -q -e -include-pch "$commands/compile_commands.json"; then
        printf 'analyse.sh: precompiled headers could not be left out of %s\n' "$commands/compile_commands.json"
        return 1
    fi
    run-clang-tidy -quiet -j "$jobs" -p "$commands" "${patterns[@]}"
}

# Disabled: style checks, checks that need the whole program (unused functions, missing headers),
# and findings suppressed in the sources with a reason.
run_cppcheck() {
    cppcheck --quiet --error-exitcode=1 --inline-suppr -j "$jobs" --std=c++20 \
        --enable=warning,performance,portability \
        --suppressions-list=cmake/cppcheck-suppressions.txt \
        --library=posix,gnu,cmake/cppcheck.cfg -D_GNU_SOURCE -D__x86_64__ -DZNC_INFLATE_ISAL \
        -I container/runtime/include -I container/runtime/src -I platform/include -I platform/linux \
        -I . \
        base cli format container/runtime/src daemon front import oci platform
}

# The C sources: the exported version, and programs of the tests.
gcc_analyser() {
    local file good=1
    while IFS= read -r -d '' file; do
        gcc -std=c11 -O2 -fanalyzer -Wall -Wextra -Werror -D_GNU_SOURCE \
            -DZNC_SOURCE_DIR='"/"' -DZNC_BINARY_DIR='"/"' \
            -I container/runtime/include -I platform/include -I tests/support -I tests/support/probe \
            -c -o /dev/null "$file" || good=
    done < <(find base cli format container daemon front oci platform tests -name '*.c' -print0)
    [[ -n $good ]]
}

[[ $# -gt 0 ]] || set -- clang-tidy cppcheck gcc
for analyser in "$@"; do
    case $analyser in
    clang-tidy) quietly 'clang-tidy has no findings' clang_tidy ;;
    cppcheck) quietly 'cppcheck has no findings' run_cppcheck ;;
    gcc) quietly "gcc's analyser has no findings" gcc_analyser ;;
    *)
        printf 'usage: analyse.sh [--recent COMMITS] [clang-tidy|cppcheck|gcc]...\n' >&2
        exit 64
        ;;
    esac
done
exit "$failed"
