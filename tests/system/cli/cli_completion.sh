#!/usr/bin/env bash
# Tests that usage, completions and the synopses of the manual name the same commands and options, and that
# the completions work.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"

for shell in bash zsh fish; do
    run zncctl completion $shell
    check "the completion for $shell is printed" test "$status/$err" = 0/
    cp "$work/out" "$work/$shell"
done
run zncctl completion tcsh
check 'completion for an unknown shell is a usage error' test "$status/$out" = 64/

check 'the completion for bash is well formed' bash -n "$work/bash"
for shell in zsh fish; do
    if command -v $shell >/dev/null; then
        check "the completion for $shell is well formed" $shell -n "$work/$shell"
    else
        printf 'skipped: %s is not installed, its script is not parsed\n' $shell
    fi
done

# shellcheck source=/dev/null
PATH=$(dirname "$ZNCCTL"):$PATH . "$work/bash"
# complete WORD...: prints the proposals for the last word, sorted, on one line.
complete_words() {
    COMP_WORDS=(zncctl "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _zncctl
    printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' '
}
check 'bash completes commands' test "$(complete_words 'st')" = 'start state stats stop storage '
check 'second words' test "$(complete_words image '')" = 'check inspect ls prune '
check 'options' test "$(complete_words delete '--')" = '--all --all-stopped --force --help --quiet --volumes '
check 'operands of an alias' test "$(complete_words unpause '--q')" = '--quiet '
check 'options of an alias' test "$(complete_words ls '--s')" = '--status '
check 'values' test "$(complete_words list --format '')" = 'json table '
check 'signals' test "$(complete_words kill -s TE)" = 'TERM '
check 'operands' test "$(complete_words completion '')" = 'bash fish zsh '
mkdir "$work/somewhere"
check 'directories' test "$(complete_words create -b "$work/some")" = "$work/somewhere "

finish
