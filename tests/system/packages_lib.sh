# packages_lib.sh - sourced by the packages_*.sh tests. Each check prints "ok - NAME" or "not ok - NAME";
# finish prints the sum and ends with 1 if any failed.
#
# Needs ZNC_BUILD_DIR, the build whose installation is tested.
# shellcheck shell=bash disable=SC2034
set -euo pipefail

: "${ZNC_BUILD_DIR:?the build to install}"
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/packages-test.XXXXXX)
passed=0
failed=0
trap 'rm -rf "$work"' EXIT

# check NAME COMMAND...: passes if the command succeeds; its output is shown only when it fails.
check() {
    local name=$1
    shift
    if "$@" >"$work/check.log" 2>&1; then
        passed=$((passed + 1))
        printf 'ok - %s\n' "$name"
    else
        failed=$((failed + 1))
        printf 'not ok - %s\n  failed: %s\n' "$name" "$*"
        tail -n 40 "$work/check.log"
    fi
}

not() { ! "$@"; }

# prints TEXT COMMAND...: the command succeeds with exactly this on standard output.
prints() {
    local text=$1 printed
    shift
    printed=$("$@") || return
    [[ $printed == "$text" ]] || {
        printf 'printed: %s\n' "$printed"
        return 1
    }
}

# eventually COMMAND...: waits up to a minute for it to succeed.
eventually() {
    local end=$((SECONDS + 60))
    while [[ $SECONDS -lt $end ]]; do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

install_component() {
    cmake --install "$ZNC_BUILD_DIR" --prefix "$1" --component "$2"
}

finish() {
    printf '%d passed, %d failed\n' "$passed" "$failed"
    [[ $failed -eq 0 ]]
}
