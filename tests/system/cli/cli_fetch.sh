#!/usr/bin/env bash
# Tests of run and create with images that are not in the store: they are fetched from a registry first.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need_registry

quietly() { "$@" >"$work/tool.log" 2>&1 || cat "$work/tool.log"; }
no_stage() { [[ -z $(find "$ZNC_BASE/images" -maxdepth 1 -name '.new-*') ]]; }
lines() { wc -l <"$1"; }
hint() { sed -n 's/^zncctl: hint: //p' "$work/err"; }

make_image "$work/layout"
quietly skopeo copy --insecure-policy "oci:$work/layout:latest" "oci:$work/served:latest"
start_daemon
serve "$work/served"
plain=(--network none --tls-verify=false --progress none)

# ---------------------------------------------------------------- policies
run zncctl run --rm "${plain[@]}" --pull never "$host/team/app"
fails_with 'with --pull never an image that is missing is not fetched' 125 'there is no such image in the store'
run zncctl run --rm "${plain[@]}" "$host/team/app"
expect 'run fetches an image that is missing, and with --progress none prints nothing about it' 0 'from the second layer' ''
check 'the image is in the store then' test "$(names)" = "$host/team/app:latest "
run zncctl run --rm "${plain[@]}" --pull always "$host/team/app"
expect 'with --pull always the registry is asked again' 0 'from the second layer' ''
run zncctl create --name made "${plain[@]}" "$host/one/app" /etc/greeting
expect 'create fetches, too' 0 made ''
run zncctl start -a made
expect 'a container created from a fetched image runs' 0 'from the second layer' ''
zncctl delete -q made
run zncctl run --rm "${plain[@]}" "docker://$host/two/app"
expect 'a name with the prefix docker:// is fetched' 0 'from the second layer' ''
run zncctl run --rm "${plain[@]}" --pull never "docker://$host/two/app"
expect 'the fetched image is found in the store' 0 'from the second layer' ''
digest=$(skopeo inspect --raw "oci:$work/served:latest" | sha256sum | cut -d ' ' -f 1)
run zncctl run --rm "${plain[@]}" "$host/three/app@sha256:$digest"
expect 'a name with a digest is fetched' 0 'from the second layer' ''
run zncctl run --rm "${plain[@]}" --progress plain "$host/four/app"
check '--progress plain shows how an image is fetched' grep -q 'Copying blob' "$work/err"
check 'progress goes to standard error only' test "$status/$out" = '0/from the second layer'
run zncctl run --rm "${plain[@]}" --progress plain --quiet "$host/five/app"
check '--quiet does not' test "$status/$out/$(grep -c Copying "$work/err")" = '0/from the second layer/0'
before=$(names)
run zncctl run --rm "${plain[@]}" --platform linux/s390x --pull never "$host/team/app"
check 'an image of another platform is not taken for the one that is wanted' test "$status/$out" = 125/
check 'the message names the platform of the image' test "$(hint)" = "the image is for linux/$architecture"
run zncctl run --rm "${plain[@]}" --platform "linux/$architecture" "$host/team/app"
expect '--platform of the image runs it' 0 'from the second layer' ''
run zncctl run --platform "linux/$architecture" --os linux "$host/team/app"
check '--platform beside --os is a usage error' test "$status/$(error_line)" = \
    '64/--platform cannot be combined with --os and --arch'
run zncctl run --pull sometimes "$host/team/app"
check 'an unknown policy is a usage error' test "$status/$(error_line)" = \
    '64/--pull is "missing", "always" or "never"'
run zncctl run --rm "${plain[@]}" --pull always "$work/layout"
expect 'a layout is never fetched' 0 'from the second layer' ''
run zncctl run --rm "${plain[@]}" 'No/Name'
fails_with 'what is no name is not fetched' 125 'it is not a valid name of an image'
check 'the store is as before' test "$(names)" = "$before"

pids=()
for i in {1..6}; do
    "$ZNCCTL" run --rm "${plain[@]}" "$host/at/once" </dev/null >"$work/runs$i" 2>&1 &
    pids[i]=$!
done
ok=0
for i in {1..6}; do wait "${pids[i]}" && [[ $(<"$work/runs$i") = 'from the second layer' ]] && ok=$((ok + 1)); done
check 'runs of a missing image at once all fetch and run it' test "$ok" = 6

# ---------------------------------------------------------------- failures
run zncctl run --rm --network none "$host/secure/app"
check 'a registry without TLS is refused by default' test "$status/$out/$(lines "$work/err")" = 125//2
check 'the hint names --tls-verify' test "$(hint)" = '--tls-verify=false accepts registries without TLS'
run zncctl run --rm "${plain[@]}" "$host/team/app:none"
check 'a tag that the registry does not have is reported in one line' test \
    "$status/$out/$(error_line | wc -l)" = 125//1
check 'the message names the image' test "$(error_line | cut -d ' ' -f 1)" = "$host/team/app:none:"
check 'the hint says that there is no such tag' grep -q 'no such image or tag' <<<"$(hint)"
run zncctl create --name never "${plain[@]}" "$host/team/app:none"
check 'create fails as well' test "$status/$out" = 1/
check 'no container is left' test -z "$(zncctl ps -aq)"
stop_serving
run zncctl run --rm "${plain[@]}" "$host/gone/app"
check 'a registry that does not answer is reported in one line' test \
    "$status/$out/$(error_line | wc -l)/$(lines "$work/err")" = 125//1/2
check 'the reason is printed' grep -q 'connection refused$' <<<"$(error_line)"
check 'the hint suggests to check the name of the registry' test "$(hint)" = 'the registry does not answer: check its name and the network'
run zncctl run --rm "${plain[@]}" "$host/team/app"
expect 'what is in the store runs without the registry' 0 'from the second layer' ''
run zncctl run --rm "${plain[@]}" --pull always "$host/team/app"
check '--pull always fails without the registry' test "$status/$out" = 125/
PATH=/nowhere run "$ZNCCTL" run --rm --network none busybox
fails_with 'without skopeo run says so' 125 'skopeo, which fetches images, is not installed'
check 'the hint suggests to install skopeo' grep -q 'install the package skopeo' <<<"$(hint)"
check 'nothing is left of what failed' no_stage

finish
