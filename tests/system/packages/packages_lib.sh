# packages_lib.sh - sourced by the packages_*.sh tests.
#
# Needs ZNC_BUILD_DIR, the build whose installation is tested. ZNC_DEBS is the directory of the packages, if not that of
# the build.
# shellcheck shell=bash disable=SC2034
set -euo pipefail
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"

: "${ZNC_BUILD_DIR:?the build to install}"
debs=${ZNC_DEBS:-$ZNC_BUILD_DIR/debs}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$here/../../.." && pwd)
work=$(mktemp -d /tmp/packages-test.XXXXXX)
trap 'rm -rf "$work"' EXIT

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

project_version() {
    sed -n 's/^#define ZNC_VERSION_[MP][A-Z]* //p' "$source_dir/container/runtime/include/zncontainer.h" | paste -sd .
}

install_component() {
    cmake --install "$ZNC_BUILD_DIR" --prefix "$1" --component "$2"
}

# What a command prints is shown only when it fails.
checked() { "$@" >"$work/check.log" 2>&1; }
explain_failure() { tail -n 40 "$work/check.log"; }

finish() { finish_checks; }
