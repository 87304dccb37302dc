#!/usr/bin/env bash
# count_tests_test.sh DIR WORK - what scripts/count-tests.py makes of results in ctest's form, also of
# programs that were run again.
set -u
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"
count=${1:?the source directory}/scripts/count-tests.py work=${2:?a directory of its own}
rm -rf "$work" && mkdir -p "$work"

# results FILE NAME STATUS OUTPUT...: writes three values for each program.
results() {
    local file=$work/$1
    shift
    printf '<testsuite>\n' >"$file"
    while [[ $# -gt 0 ]]; do
        printf '<testcase name="%s" status="%s">' "$1" "$2" >>"$file"
        [[ $2 != notrun ]] || printf '<skipped message="SKIP_RETURN_CODE=77"/>' >>"$file"
        printf '<system-out>%s</system-out></testcase>\n' "$3" >>"$file"
        shift 3
    done
    printf '</testsuite>\n' >>"$file"
}

# counts WANTED FILE...: whether these are the sums; what is said besides is kept in "said".
# shellcheck disable=SC2317
counts() {
    local wanted=$1 sums
    shift
    sums=$(cd "$work" && python3 "$count" "$@" 2>"$work/said")
    [[ $sums == "$wanted" ]]
}

results first good run $'ok - a\nok - b' bad fail $'ok - a\nnot ok - b' worse fail '' none notrun 'no tool'
check 'each check of a program counts' counts '3 2 1' first
check 'the reason of a skip is printed' grep -qx 'skipped none: no tool' "$work/said"
listed=$(python3 "$count" --failed "$work/first")
check 'programs that failed are listed' test "$listed" = $'bad\nworse'
results again bad run $'ok - a\nok - b' worse fail ''
check 'the second run of a program replaces its first' counts '4 1 1' first again
check 'a program that failed only once is named' grep -q '^unstable bad: ' "$work/said"
check 'one that failed twice is not' test "$(grep -c '^unstable' "$work/said")" = 1
results empty
check 'no tests at all are a failure' counts '0 1 0' empty
check 'and no program of them is listed' test -z "$(python3 "$count" --failed "$work/empty")"
finish_checks
