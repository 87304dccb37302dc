#!/usr/bin/env bash
# fuzz.sh SECONDS [TARGET...] - builds the fuzz targets and runs each of the named ones (default:
# all) for this time in a sandbox, two in parallel (FUZZ_JOBS). Prints the number of inputs, the
# number of covered edges and the findings of each target, and fails if there are any. The corpus is
# kept in build/fuzz/corpus for the next run. FUZZ_PRESET selects the build: "fuzz" (default,
# optimised) or "asan-ubsan", which is also used by the tests.
#
# The input of a finding is stored next to the corpus. When the fault is fixed, add it under a
# descriptive name to tests/fuzz/regressions/TARGET; the tests of every build run these inputs.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1-}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    printf 'usage: fuzz.sh SECONDS [TARGET...]\n' >&2
    exit 64
fi
shift
if [[ $(id -u) -ne 0 ]]; then
    printf 'fuzz.sh: the sandbox makes namespaces; run it as root\n' >&2
    exit 1
fi

# Dictionary and maximum input length of each target.
declare -A dictionary=([tar_stream]=tar [extract]=tar [archive]=tar [gzip]=gzip [image_layout]=image
    [image_config]=config [bundle_config]=config [request]=message [reply]=message [paths]=paths
    [settings]=settings)
declare -A longest=([tar_stream]=6144 [extract]=6144 [archive]=6144 [extract_names]=200 [gzip]=16384
    [image_layout]=8192 [image_config]=4096 [bundle_config]=4096 [request]=2100 [reply]=16384
    [paths]=1024 [import_merge]=260 [settings]=4096)
all=(tar_stream extract gzip image_layout request extract_names reply bundle_config image_config paths
    import_merge settings archive)
[[ $# -gt 0 ]] || set -- "${all[@]}"
for target in "$@"; do
    if [[ -z ${longest[$target]-} ]]; then
        printf 'fuzz.sh: no such target: %s\n' "$target" >&2
        exit 64
    fi
done

preset=${FUZZ_PRESET:-fuzz}
build=$PWD/build/$preset
work=$build/fuzzing
mkdir -p "$work"
log=$work/build.log
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" --target fuzz_targets; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi

# run TARGET: logs its output and returns libFuzzer's exit code.
run() {
    local target=$1 corpus=$build/corpus/$1 options=()
    mkdir -p "$corpus"
    rm -f "$work/$target-"*
    [[ -z ${dictionary[$target]-} ]] || options+=("-dict=$PWD/tests/fuzz/${dictionary[$target]}.dict")
    [[ ! -d tests/fuzz/regressions/$target ]] || set -- "$target" "tests/fuzz/regressions/$target"
    shift
    ASAN_OPTIONS=quarantine_size_mb=8:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        nice -n 19 "$build/bin/znc_sandbox" -- "$build/bin/fuzz_$target" \
        -max_total_time="$seconds" -max_len="${longest[$target]}" -timeout=30 -rss_limit_mb=1024 \
        -print_final_stats=1 -artifact_prefix="$work/$target-" "${options[@]}" \
        "$corpus" "$build/tests/fuzz/seeds/$target" "$@" >"$work/$target.log" 2>&1
}

# report TARGET CODE: prints one line with the result, and the findings.
report() {
    local target=$1 code=$2 executions coverage
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log")
    coverage=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$work/$target.log" | tail -n 1)
    if [[ $code -eq 0 && ${executions:-0} -gt 0 ]]; then
        printf 'ok - %-13s %12d inputs %6d edges\n' "$target" "$executions" "${coverage:-0}"
        return
    fi
    printf 'not ok - %s: %s\n' "$target" "$work/$target.log"
    sed -nE '/^(broken|SUMMARY|artifact_prefix)|ERROR|runtime error/p' "$work/$target.log"
    return 1
}

failed=0
declare -A target_of=()
# one_ended: waits for one target to end and reports it.
one_ended() {
    local pid code=0
    wait -n -p pid || code=$?
    report "${target_of[$pid]}" "$code" || failed=1
    unset "target_of[$pid]"
}

for target in "$@"; do
    while [[ ${#target_of[@]} -ge ${FUZZ_JOBS:-2} ]]; do one_ended; done
    run "$target" &
    target_of[$!]=$target
done
while [[ ${#target_of[@]} -gt 0 ]]; do one_ended; done
exit "$failed"
