#!/usr/bin/env bash
# service_test.sh UNIT - checks that zncd works with the restrictions of its systemd unit: capabilities
# outside the bounding set, filtered system calls (made to fail with strace), and clone3(), which
# RestrictNamespaces= refuses because a filter cannot see its flags. UNIT: zncd.service.in. Needs a sandbox.
# See cli_lib.sh.
# shellcheck disable=SC2317 # what is called by way of check
# shellcheck source=tests/system/cli/cli_lib.sh
. "$(dirname "$0")/../cli/cli_lib.sh"
need strace
need setpriv
need systemd-analyze
need jq

unit=$work/zncd.service
sed 's|@ZNC_SBINDIR@/zncd|/bin/true|' "${1:?the unit}" >"$unit"
setting() { sed -n "s/^$1=//p" "$unit"; }

# ---- the settings of the unit

exposed_above() { not systemd-analyze security --offline=true --threshold="$1" "$unit" >/dev/null 2>&1; }
check 'systemd rates its exposure below 6' not exposed_above 59
check 'the rating is taken from the unit' exposed_above 1
check 'every capability in the bounding set is explained' test "$(setting CapabilityBoundingSet | wc -w)" -eq 11

# ---- the daemon with these restrictions

bounding=-all
for capability in $(setting CapabilityBoundingSet); do
    capability=${capability#CAP_}
    bounding+=,+${capability,,}
done
refused=
for group in $(setting SystemCallFilter | tr -d '~'); do
    for call in $(systemd-analyze syscall-filter "$group" | sed -n 's/^    \([a-z_0-9]*\)$/\1/p'); do
        refused+="${refused:+,}?$call"
    done
done
check 'system calls are filtered' grep -q 'ptrace.*kexec_load' <<<"$refused"

# The daemon is a child of the shell; strace attaches to it and its keepers.
start_confined() {
    setpriv --bounding-set "$bounding" --no-new-privs \
        strace -D -f -q -o "$work/calls" -e "trace=clone,clone3,unshare,setns,$refused" \
        -e "inject=$refused:error=EPERM" -e inject=clone3:error=ENOSYS \
        "$ZNCD" >"$work/zncd.log" 2>&1 </dev/null &
    daemon=$!
    eventually alive || { printf 'the daemon does not answer:\n' && cat "$work/zncd.log"; }
}
state_is() { zncctl state web | jq -e ".status == $1" >/dev/null; }

make_bundle "$work/web" /bin/sleep "$mark"
jq '.mounts = [{"destination": "/mnt", "source": "/usr", "type": "bind", "options": ["ro"]},
               {"destination": "/scratch", "source": "tmpfs", "type": "tmpfs"}]' \
    "$work/web/config.json" >"$work/config" && mv "$work/config" "$work/web/config.json"

start_confined
expected=$(setpriv --bounding-set "$bounding" grep CapBnd /proc/self/status)
check 'the daemon has only the rights of the unit' test "$(grep CapBnd "/proc/$daemon/status")" = "$expected"
check 'the daemon has fewer rights than root' test "$expected" != "$(grep CapBnd /proc/self/status)"
run zncctl create web "$work/web"
check 'a container with mounts is created' test "$status" -eq 0
run zncctl start web
check 'the container is started' test "$status" -eq 0
check 'the container runs' eventually state_is 2
run zncctl kill -s KILL web
check 'the container is killed' eventually state_is 3
run zncctl delete web
check 'the container is deleted' test "$status" -eq 0

# The daemon counts, ends and cleans up after a program of another user.
make_bundle "$work/web" /bin/busybox su -s /bin/sh daemon -c "exec sleep $mark"
mkdir "$work/web/rootfs/etc"
printf 'root::0:0::/:/bin/sh\ndaemon::1:1::/:/bin/sh\n' >"$work/web/rootfs/etc/passwd"
run zncctl create web "$work/web"
run zncctl start web
check 'a program of another user runs' eventually program_lives
kill -KILL "$daemon"
wait "$daemon" 2>/dev/null
start_confined
check 'the next daemon clears away what a dead one left' eventually not program_lives
run zncctl create web "$work/web"
check 'the id is free again' test "$status" -eq 0
stop_daemon
check 'the daemon stops cleanly' test "$status" -eq 0
check 'no device is left' test "$(overlay_mounts)" -eq 0

check 'calls were watched' grep -q 'clone(' "$work/calls"
check 'no user namespace is made or entered' not grep -q 'CLONE_NEWUSER' "$work/calls"
check 'every setns() call names the namespace type' not grep -qE 'setns\([0-9]+, 0\)' "$work/calls"
refusals() { grep -v ' clone3(' "$work/calls" | grep INJECTED; }
check 'no filtered system call is needed' not refusals

finish
