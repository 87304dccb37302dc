# checks.sh - sourced by tests that are scripts. Each check prints one line, "ok - NAME" or "not ok - NAME";
# finish prints the sum and ends with 1 if any failed.
# shellcheck shell=bash
passed=0
failed=0

# check NAME COMMAND...: passes if the command succeeds.
check() {
    local name=$1
    shift
    if checked "$@"; then
        passed=$((passed + 1))
        printf 'ok - %s\n' "$name"
    else
        failed=$((failed + 1))
        printf 'not ok - %s\n  failed: %s\n' "$name" "$*"
        explain_failure
    fi
}

# A script that wants to treat the output of the commands, or to say more about a failure, defines these anew.
checked() { "$@"; }
explain_failure() { return 0; }

not() { ! "$@"; }

# eventually COMMAND...: waits up to a minute for it to succeed.
eventually() {
    local end=$((SECONDS + 60))
    while [[ $SECONDS -lt $end ]]; do
        "$@" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# The sum; for the last line of a script.
finish_checks() {
    printf '%d passed, %d failed\n' "$passed" "$failed"
    [[ $failed -eq 0 ]]
}
