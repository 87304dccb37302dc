#!/usr/bin/env bash
# Tests of zncctl without a daemon: arguments, help, errors, streams.
# shellcheck source=cli_lib.sh
. "$(dirname "$0")/cli_lib.sh"

# usage_error NAME USAGE-WORDS: exit 64, nothing on standard output, the usage line last.
usage_error() {
    local name=$1
    check "$name" test "$status/$out/${err##*$'\n'}" = "64//usage: zncctl $2"
}

run zncctl
usage_error 'no command is a usage error' 'COMMAND [ARGUMENTS] | --help | --version'
run zncctl frobnicate
usage_error 'an unknown command is a usage error' 'COMMAND [ARGUMENTS] | --help | --version'
run zncctl image frobnicate
usage_error 'an unknown image command is a usage error' 'COMMAND [ARGUMENTS] | --help | --version'
run zncctl rename old new
expect 'rename says in one line why it is missing and what to do' 64 '' "zncctl: error: there is no command 'rename': the \
name of a container is its id, which does not change; 'zncctl run --name NAME' or 'zncctl create --name NAME' creates one \
with the wanted name"
for command in restart build commit push; do
    run zncctl $command x
    check "so does $command" test "$status/$(grep -c "^zncctl: error: there is no command '$command': " "$work/err")/$(wc -l <"$work/err")" = 64/1/1
done
run zncctl create
usage_error 'create without an id shows its usage line' \
    'create [OPTION...] [ID|IMAGE] [BUNDLE|COMMAND] [ARG...]'
run zncctl create -b /x web /y
usage_error 'create with two bundles is a usage error' \
    'create [OPTION...] [ID|IMAGE] [BUNDLE|COMMAND] [ARG...]'
run zncctl start -x web
usage_error 'an unknown option is a usage error' \
    'start [OPTION...] ID...'
kill_usage='kill [OPTION...] ID...'
run zncctl kill -s NOSUCH web
usage_error 'an unknown signal is a usage error' "$kill_usage"
run zncctl kill -s
usage_error 'a signal that is not there is a usage error' "$kill_usage"
run zncctl delete -f
usage_error 'delete without an id is a usage error' \
    'delete [OPTION...] [ID...]'
run zncctl state a b
usage_error 'state takes one id' 'state ID'
run zncctl list web
usage_error 'list takes no operand' \
    'list [OPTION...]'
run zncctl unpack layout
usage_error 'unpack needs an image and a bundle' \
    'unpack [OPTION...] IMAGE BUNDLE'
run zncctl image inspect
usage_error 'image inspect needs an image' 'image inspect IMAGE'

run zncctl --help
check 'help goes to standard output' test "$status/$err" = 0/
for command in create start run attach logs wait kill stop delete state list inspect top unpack \
    'image inspect' 'image ls' 'image check' 'image prune' pull load images tag rmi diff export events cp spec 'config check' 'storage df' 'storage gc' ping \
    version info completion; do
    check "help names $command" grep -q "^  $command " "$work/out"
    # shellcheck disable=SC2086
    run zncctl $command --help
    check "$command --help prints its usage line" \
        test "$status/${out%%$'\n'*}" = "0/$(printf '%s' "${out%%$'\n'*}" | grep "^usage: zncctl $command")"
    run zncctl --help
done
for word in image storage config container; do
    run zncctl "$word"
    check "the words behind '$word' are listed" grep -qE "^zncctl: error: '$word' needs another word: '[a-z]+'" "$work/err"
    check "'$word' alone is a usage error" test "$status/$out" = 64/
done
run zncctl image bogus
check 'an unknown second word is named' test "$status/$(error_line)" = "64/unknown command 'image bogus'"
run zncctl image rm
check 'image rm is rmi' grep -q '^usage: zncctl rmi ' "$work/err"
for command in 'run no-such-image' 'create --name web no-such-image'; do
    # shellcheck disable=SC2086
    run zncctl ${command%% *} --progress bogus ${command#* }
    check "${command%% *} refuses another progress before it looks for an image" test "$status/$(error_line)" = \
        '64/--progress is "auto", "plain", "json" or "none"'
done
run zncctl help kill
check 'help COMMAND is COMMAND --help' test "$out" = "$(zncctl kill --help)"
for words in '--version more' '--help more' '-h more' 'help kill more'; do
    # shellcheck disable=SC2086
    run zncctl $words
    usage_error "$words is a usage error" 'COMMAND [ARGUMENTS] | --help | --version'
done
run zncctl help frobnicate
usage_error 'help about an unknown command is a usage error' \
    'COMMAND [ARGUMENTS] | --help | --version'
run zncctl kill web -9x
usage_error 'a signal with more behind it is no option' "$kill_usage"
run zncctl lsit
check 'a similar command is suggested' grep -qx "zncctl: hint: did you mean 'list'?" "$work/err"
run zncctl image inspct
check 'a similar command of two words is suggested' grep -qx "zncctl: hint: did you mean 'image inspect'?" "$work/err"
run zncctl ps --filtr x
check 'a similar option is suggested' grep -qx "zncctl: hint: did you mean '--filter'?" "$work/err"
run zncctl frobnicate
check 'nothing is suggested if nothing is similar' not grep -q '^zncctl: hint' "$work/err"
run zncctl run --help
check 'run --help lists its options, without the long line' test "${out%%$'\n'*}" = \
    'usage: zncctl run [OPTION...] [IMAGE] [COMMAND] [ARG...]'
check 'the help of run shows -h as the host name' grep -q '^  -h, --hostname NAME ' "$work/out"
run zncctl --version
check 'the version is one line' grep -qx 'zncctl [0-9]*\.[0-9]*\.[0-9]*' "$work/out"

run zncctl ping
fails_with 'ping without a daemon exits 4' 4 'The daemon is not running'
for command in 'create web /tmp' 'kill web' 'delete web' 'state web' list 'inspect web'; do
    # shellcheck disable=SC2086
    run zncctl $command
    fails_with "$command without a daemon exits 4" 4 'The daemon is not running'
done
run zncctl start -a web
fails_with 'start --attach without a daemon exits 125' 125 'The daemon is not running'
run zncctl start web
fails_with 'start without a daemon exits 4' 4 'The daemon is not running'
run zncctl create web no/such/bundle
fails_with 'a relative bundle that is missing fails before the daemon is asked' 1 \
    'No such file or directory'
run zncctl list -f xml
fails_with 'an unknown list format has its own message' 64 'invalid format option'
run zncctl unpack "$work/none" "$work/bundle"
fails_with 'unpack of a missing layout' 1 'File oci-layout not found'
check 'a failed unpack leaves no bundle' test ! -e "$work/bundle"
run zncctl image inspect "$work/none"
fails_with 'image inspect of a missing layout' 1 'File oci-layout not found'

zncctl --help >/dev/full 2>"$work/err"
status=$?
check 'output that cannot be written is a failure' \
    test "$status/$(<"$work/err")" = \
    '1/zncctl: error: standard output: No space left on device'
zncctl --help >&- 2>"$work/err"
status=$?
check 'a closed standard output is a failure' test "$status/$(<"$work/err")" = \
    '1/zncctl: error: standard output: Bad file descriptor'

finish
