# cli_lib.sh - sourced by the cli_*.sh tests.
#
# Needs ZNCCTL and ZNCD, the programs to test, and a sandbox: it starts daemons and makes mounts.
# shellcheck shell=bash disable=SC2120,SC2119
set -u
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"

: "${ZNCCTL:?the zncctl to test}" "${ZNCD:?the zncd to test}"
cli_tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d /tmp/cli-test.XXXXXX)
export ZNC_BASE=$work/storage
daemon=
out='' err='' status=0
# Programs in containers are identified from outside by the duration of their sleep.
mark=$((900000 + $$ % 90000))

# What images are for unless a test says more.
architecture=amd64
[[ $(uname -m) != aarch64 ]] || architecture=arm64

zncctl() { "$ZNCCTL" "$@"; }

# run COMMAND...: sets out, err and status.
run() {
    "$@" >"$work/out" 2>"$work/err" </dev/null
    status=$?
    out=$(<"$work/out")
    err=$(<"$work/err")
}

explain_failure() { printf '  last run: status %s\n  out: %s\n  err: %s\n' "$status" "$out" "$err"; }

# expect NAME STATUS OUT ERR: checks that the last run produced exactly these.
expect() {
    check "$1" test "$status/$out/$err" = "$2/$3/$4"
}

# error_line: prints the only error line of the last run.
error_line() { sed -n 's/^zncctl: error: //p' "$work/err"; }

# fails_with NAME STATUS MESSAGE: nothing on standard output, and one error line on standard error
# that ends with the message; before it stands at most the name of what failed.
fails_with() {
    local said
    said=$(error_line)
    [[ $said == *": $3" ]] && said=$3
    check "$1" test "$status/$out/$said" = "$2//$3"
}

alive() { zncctl ping >/dev/null 2>&1; }

start_daemon() {
    "$ZNCD" "$@" >"$work/zncd.log" 2>&1 </dev/null &
    daemon=$!
    eventually alive || { printf 'the daemon does not answer:\n' && cat "$work/zncd.log"; }
}

# stop_daemon [SIGNAL]: sets status to its exit status.
stop_daemon() {
    kill -s "${1:-TERM}" "$daemon"
    wait "$daemon" 2>/dev/null
    status=$?
    daemon=
}

# make_bundle DIR ARGUMENT...: a bundle with Debian's static busybox that runs the arguments.
make_bundle() {
    local dir=$1 args='' arg
    shift
    mkdir -p "$dir"/rootfs/{bin,proc,dev,sys,tmp}
    cp "$(command -v busybox)" "$dir/rootfs/bin/busybox"
    for arg in sh sleep cat echo; do ln -sf busybox "$dir/rootfs/bin/$arg"; done
    for arg in "$@"; do args+=${args:+,}"\"$arg\""; done
    cat >"$dir/config.json" <<JSON
{"ociVersion": "1.0.0", "root": {"path": "rootfs"},
 "process": {"cwd": "/", "args": [$args], "env": ["PATH=/bin"]}}
JSON
}

# add_layer LAYOUT DIR
add_layer() {
    tar --create --format=ustar --owner=0 --group=0 --directory="$2" --file="$2.tar" .
    umoci raw add-layer --image "$1:latest" "$2.tar"
}

# make_image LAYOUT: an image of two layers for Linux, whose program prints a line of the second.
make_image() {
    {
        umoci init --layout "$1"
        umoci new --image "$1:latest"
        mkdir -p "$work"/lower/{bin,proc,dev,sys} "$work/upper/etc"
        cp "$(command -v busybox)" "$work/lower/bin/busybox"
        ln -sf busybox "$work/lower/bin/cat"
        echo 'from the second layer' >"$work/upper/etc/greeting"
        add_layer "$1" "$work/lower"
        add_layer "$1" "$work/upper"
        umoci config --image "$1:latest" --os linux --architecture "$architecture" \
            --config.workingdir / --config.entrypoint /bin/cat --config.cmd /etc/greeting
    } >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"
}

need() {
    command -v "$1" >/dev/null && return
    printf 'skipped: %s is not installed\n' "$1"
    exit 77
}

# The tests of named images make images with these tools and serve them on the loopback.
need_registry() {
    local tool
    for tool in busybox umoci jq skopeo ip; do need "$tool"; done
    ip link set lo up
}

# serve LAYOUT: starts a registry with one image; sets registry, its process, and host, its address.
serve() {
    rm -f "$work/port"
    python3 "$cli_tests/registry.py" "$1" "$work/port" &
    registry=$!
    eventually test -s "$work/port"
    # shellcheck disable=SC2034 # used by the tests
    host=127.0.0.1:$(<"$work/port")
}
stop_serving() {
    kill "$registry"
    wait "$registry" 2>/dev/null
}

# The names in the image store, sorted, on one line.
names() { zncctl images --format json | jq -r '.[].name' | sort | tr '\n' ' '; }

# Returns whether any process of this run's containers is still running (zombies do not count).
program_lives() {
    local proc words
    for proc in /proc/[0-9]*; do
        mapfile -d '' -t words 2>/dev/null <"$proc/cmdline" || continue
        [[ "${words[*]}" == *"sleep $mark"* ]] && return 0
    done
    return 1
}

overlay_mounts() { grep -c ' /overlay/' /proc/self/mountinfo; }

finish() {
    [[ -n $daemon ]] && stop_daemon
    rm -rf "$work"
    finish_checks
    exit
}
