#!/usr/bin/env bash
# Tests of zncctl ps and of what it shows, and of rm, kill and container prune as users of container engines
# type them.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci
export ZNCCTL_NETWORK=none
make_image "$work/layout"
image=$work/layout
start_daemon

create() { zncctl create --os linux --progress none "$@" >/dev/null; }
# A container in each state.
create --name made -l tier=db "$image"
zncctl run -d --name up --os linux --progress none -l tier=web -l blue --entrypoint /bin/busybox \
    "$image" sleep $mark >/dev/null
zncctl run --name down --os linux --entrypoint /bin/busybox "$image" sh -c 'exit 3'
make_bundle "$work/bundle" /bin/sleep $mark
zncctl run -d --name held -b "$work/bundle" >/dev/null
zncctl pause -q held

run zncctl ps -q
expect 'ps lists what is running, by id' 0 $'held\nup' ''
run zncctl ps -a -q
expect 'ps -a lists all containers' 0 $'down\nheld\nmade\nup' ''
run zncctl ps -a
check 'ps has the columns of podman' grep -Eq \
    '^CONTAINER ID  IMAGE +COMMAND +CREATED +STATUS +PORTS +NAMES$' "$work/out"
check 'a running container says since when' grep -Eq \
    "^up +$image +/bin/busybox slee\.\.\. +(Less than a second|1 second|[0-9]+ seconds) ago +Up (Less than a second|1 second|[0-9]+ seconds) +up$" \
    "$work/out"
check 'ps shows how and when a container has ended' grep -Eq ' Exited \(3\) .* ago +down$' "$work/out"
check 'ps shows that a container was not started' grep -Eq ' Created +made$' "$work/out"
check 'a paused one that it is' grep -Eq ' Up .* \(Paused\) +held$' "$work/out"
check 'ps shows the bundle of a container without an image' grep -Eq "^held +$work/bundle +/bin/sleep " "$work/out"
run zncctl ps -a --no-trunc
check '--no-trunc shows whole commands' grep -q " /bin/busybox sleep $mark " "$work/out"
run zncctl list -q
expect 'list still lists all' 0 $'down\nheld\nmade\nup' ''

# --- filters
# filtered FILTER... IDS: whether ps -q with these filters prints these ids.
filtered() {
    local words=() filter
    for filter in "${@:1:$#-1}"; do words+=(--filter "$filter"); done
    run zncctl ps -aq "${words[@]}"
    check "ps -a with ${*:1:$#-1}" test "$status/$(tr '\n' ' ' <"$work/out")" = "0/${*: -1}"
}
filtered name=ow 'down '
filtered id=u 'up '
filtered status=exited 'down '
filtered status=stopped 'down '
filtered status=running status=paused 'held up '
filtered status=created 'made '
filtered label=tier 'made up '
filtered label=tier=web 'up '
filtered label=tier label=blue 'made up '
filtered label=tier status=running 'up '
filtered "ancestor=$image" 'down made up '
filtered exited=3 'down '
filtered exited=0 ''
run zncctl ps -q --filter status=exited
expect 'a filter for a state implies -a' 0 down ''
for filter in odd=1 name status=odd exited=x =; do
    run zncctl ps --filter "$filter"
    check "the filter $filter is a usage error" test "$status/$out" = 64/
done

# --- formats
run zncctl ps -a --filter name=up --format '{{.ID}},{{ .Names }},{{.Image}}\t{{.Command}}|{{.State}}|{{.Labels}}'
expect 'a format has fields' 0 "up,up,$image	/bin/busybox sleep $mark|running|$(
    zncctl ps --filter name=up --format '{{.Labels}}')" ''
check 'labels are among them' test "${out##*|}" != "${out##*tier=web}"
run zncctl ps -a --filter name=down --format 'table {{.Names}}\t{{.ExitCode}}'
expect 'a table has a heading' 0 $'NAMES  EXITCODE\ndown   3' ''
run zncctl ps -a --filter name=down --format '{{json .Names}} {{json .}}'
check 'fields can be JSON' test "${out%% *}" = '"down"'
check 'a row can be JSON' jq -e '.Status | startswith("Exited (3)")' <<<"${out#* }"
run zncctl ps -a --format json
check 'ps --format json is an array' python3 -c '
import json, sys
down, held, made, up = json.load(open(sys.argv[1]))
assert up["Id"] == "up" and up["Names"] == ["up"] and up["State"] == "running", up
assert up["Command"][0] == "/bin/busybox" and up["Labels"]["tier"] == "web", up
assert down["Exited"] and down["ExitCode"] == 3 and not up["Exited"], down
assert up["Created"] > 1700000000 and up["Pid"] > 0 and held["State"] == "paused", held' "$work/out"
run zncctl ps -aq --format json
check '-q does not drop a format' test "$(jq -r 'map(.Id) | join(" ")' "$work/out")" = 'down held made up'
run zncctl ps -aq --filter name=up --format '{{.State}}'
expect 'nor one with fields' 0 running ''
run zncctl list -q -f json
check 'list -q -f json is JSON' test "$(jq length "$work/out")" = 4
for format in '{{.Odd}}' '{{.ID' '{{ID}}' '{{json Odd}}' '{{range .}}'; do
    run zncctl ps --format "$format"
    check "the format $format is a usage error" test "$status/$out" = 64/
done
run zncctl ps --filter name=none
check 'an empty list has its heading' test "$(wc -l <"$work/out")" = 1
run zncctl ps -q --filter name=none
expect 'an empty list with -q prints nothing' 0 '' ''

# --- kill
run zncctl kill -9 up
expect 'kill -9 ID' 0 up ''
run zncctl wait up
expect 'kills' 0 137 ''
zncctl run -d --name TERM --os linux --entrypoint /bin/busybox "$image" sleep $mark >/dev/null
zncctl run -d --name web --os linux --entrypoint /bin/busybox "$image" sleep $mark >/dev/null
run zncctl kill web KILL
expect 'kill ID SIGNAL' 0 web ''
run zncctl wait web
expect 'sends it' 0 137 ''
zncctl delete -q web
zncctl run -d --name web --os linux --entrypoint /bin/busybox "$image" sleep $mark >/dev/null
run zncctl kill web TERM
expect 'an id that looks like a signal is an id' 0 $'web\nTERM' ''
run zncctl kill nosuch HUP
fails_with 'kill of a container that does not exist' 2 'Container does not exist'

# --- rm and prune
run zncctl rm -f nosuch
expect 'rm -f of what does not exist succeeds' 0 '' ''
run zncctl rm nosuch
fails_with 'rm does not' 2 'Container does not exist'
run zncctl rm -fv made nosuch
expect 'the other containers are deleted' 0 made ''
run zncctl rm
check 'rm needs an id' test "$status/$out" = 64/
run zncctl rm -a up
check 'rm takes either ids or --all' test "$status/$out" = 64/
run zncctl wait web TERM
run zncctl container prune --filter label=tier=web
expect 'container prune takes filters' 0 up ''
run zncctl container prune -f
check 'container prune deletes what has ended' test "$status/$(sort "$work/out" | tr '\n' ' ')" = \
    '0/TERM down web '
run zncctl container prune --filter odd
check 'a wrong filter is a usage error' test "$status/$out" = 64/
run zncctl ps -aq
expect 'container prune keeps containers that do not match' 0 held ''
run zncctl rm -af
expect 'rm -a -f deletes all' 0 held ''
run zncctl system df
check 'system df is storage df' test "$status/$out" = "0/$(zncctl storage df)"
run zncctl system prune -n
check 'system prune is storage gc' test "$status/$out" = "0/$(zncctl storage gc -n)"
# --- more containers than a reply of the daemon can list
# many COUNT ID-PREFIX BUNDLE: creates containers; their ids are in `ids`.
many() {
    local number
    ids=()
    for ((number = 100; number < 100 + $1; number++)); do ids+=("$2$number"); done
    for number in "${ids[@]}"; do zncctl create "$number" "$3" || break; done
}
many 230 "$(printf '%0240d' 0)" "$work/bundle"
run zncctl list -q
expect 'list is complete if the ids are too long together' 0 "$(printf '%s\n' "${ids[@]}")" ''
run zncctl ps -aq
expect 'so is ps' 0 "$(printf '%s\n' "${ids[@]}")" ''
run zncctl rm -af
expect 'rm -a deletes them' 0 "$(printf '%s\n' "${ids[@]}")" ''
# The daemon is asked for a list here, which it cannot send.
deep=$work/$(printf '%0230d/' 1 2 3)
mkdir -p "$deep"
make_bundle "$deep/bundle" /bin/true
many 90 many "$deep/bundle"
run zncctl list -q
expect 'list is complete if the paths of bundles are too long' 0 "$(printf '%s\n' "${ids[@]}")" ''
zncctl rm -f "${ids[@]}" >/dev/null

stop_daemon
run zncctl ps
fails_with 'ps without a daemon exits 4' 4 'The daemon is not running'
finish
