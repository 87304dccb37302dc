#!/usr/bin/env bash
# Tests of zncctl on a terminal: the terminal of the program, restoring the caller's terminal, colours,
# widths, progress.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"
need busybox
need python3
need umoci

layout=$work/layout
{
    umoci init --layout "$layout"
    umoci new --image "$layout:latest"
    mkdir "$work/tree"
    head -c 3000000 /dev/urandom >"$work/tree/file"
    tar --create --format=ustar --owner=0 --group=0 --directory="$work/tree" --file="$work/tar" .
    umoci raw add-layer --image "$layout:latest" "$work/tar"
    umoci config --image "$layout:latest" --os zarnel --architecture "$architecture" --config.cmd /file
} >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"

start_daemon
# shellcheck disable=SC2016
make_bundle "$work/shell" /bin/sh -c 'cd /; . /tmp/script'
make_bundle "$work/sleeps" /bin/sleep "$mark"
WORK=$work LAYOUT=$layout MARK=$mark run python3 "$(dirname "$0")/cli_terminal.py"
printf '%s\n' "$out" "$err"
out='' err=''
check 'cli_terminal.py reports no failure' test "$status" = 0
check 'cli_terminal.py ran at least one check' grep -q '^ok - ' "$work/out"
check 'no container is left' test -z "$(zncctl list -q)"
finish
