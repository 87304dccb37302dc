#!/usr/bin/env bash
# readme_test.sh README - runs the commands under "Try it" and compares their output with the README. Needs
# ZNCD and ZNCCTL.
set -u
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"
readme=${1:?the README}
PATH=$(dirname "$ZNCCTL"):$PATH
work=$(mktemp -d)
cd "$work" || exit 1

"$ZNCD" 2>zncd.log &
daemon=$!
for ((i = 0; i < 100; i++)); do
    zncctl ping >ping.log 2>&1 && break
    sleep 0.1
done
check 'the daemon answers' grep -q alive ping.log

# The code block without the lines that install packages and start the daemon.
sed -n '/^## Try it/,/^## /p' "$readme" | awk '/^```console/ { on = 1; next } /^```/ { on = 0 } on' >block
grep -E '^# ' block | sed 's/^# //' | grep -vE '^apt |^zncd ' >commands
check 'there are commands to try' test "$(wc -l <commands)" -eq 3
sed -n 's|^/ # ||p' block >typed
grep -vE '^(# |/ # )' block >printed
check 'there is something to type and to see' test -s typed -a -s printed

while read -r -u 3 line; do
    # There is no terminal here: the program gets pipes.
    bash -c "${line/ -it / -i }" <typed >said
    check "$line" test $? -eq 0
done 3<commands
words() { tr -s '[:space:]' '[\n*]' <"$1"; }
check 'the command prints what the README shows' diff <(words printed) <(words said)

kill "$daemon"
check 'the daemon ends' wait "$daemon"
cd / && rm -rf "$work"
finish_checks
