#!/usr/bin/env bash
# keep_machine.sh - tests, where systemd is the first process, that containers outlive zncd --keep, what an upgrade of
# the Debian packages does to them, and what removing and purging the packages leaves. Run by scripts/vm-keep-test.sh in
# a virtual machine. /tests/first and /tests/second have the packages in two versions, /tests/image is an image.
# shellcheck disable=SC2016,SC2317 # programs of containers; what is called by way of check
set -u
# shellcheck source=../../support/checks.sh
. /tests/checks.sh
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
work=/root/work
settings=/etc/default/zncd
many=40 # containers that only sleep
status=0 out=''

# run COMMAND...: sets status and out; the errors are in the file err.
run() {
    status=0
    timeout -k 5 100 "$@" >$work/out 2>$work/err </dev/null || status=$?
    out=$(<$work/out)
}
explain_failure() {
    printf '  last run: status %s\n' "$status"
    sed 's/^/  out: /' $work/out | tail -n 20
    sed 's/^/  err: /' $work/err | tail -n 20
    systemctl show --property=ActiveState,SubState,Result,MainPID,Job,ControlPID zncd | sed 's/^/  unit: /'
    journalctl --unit=zncd --lines=15 --output=cat --no-pager | sed 's/^/  log: /'
}
expect() { check "$1" test "$status/$out" = "$2/$3"; }
# succeeds NAME COMMAND...
succeeds() {
    local name=$1
    shift
    run "$@"
    check "$name" test "$status" -eq 0
}
section() { printf '# %s s: %s\n' "$SECONDS" "$1"; }

# ---- the daemon

property() { systemctl show --property="$1" --value zncd.service; }
is_property() { [[ $(property "$1") == "$2" ]]; }
daemon_pid() { property MainPID; }
is_new_daemon() { is_property ActiveState active && [[ $(daemon_pid) != "$daemon" ]]; }
is_same_daemon() { is_property ActiveState active && is_property MainPID "$daemon"; }
runs_installed_program() { [[ /proc/$(daemon_pid)/exe -ef /usr/sbin/zncd ]]; }
answers() { timeout 20 zncctl ping >/dev/null; }
any_daemon() { grep -qsx zncd /proc/[0-9]*/comm; }
options() { printf 'ZNCD_OPTIONS="%s"\n' "$*" >$settings; }
install_packages() { run dpkg --install /tests/"$1"/*.deb; }
installed() { dpkg-query --show --showformat='${Version}' zncontainer-tools; }

# ---- containers

# Each container: id, state, exit code, and of a running one the process and the time at which that started.
snapshot() {
    local id state code pid stat
    timeout 60 zncctl ps --all --format json | jq -r '.[] | "\(.Id) \(.State) \(.ExitCode) \(.Pid)"' | sort |
        while read -r id state code pid; do
            stat=()
            [[ $pid == 0 ]] || read -ra stat <"/proc/$pid/stat"
            printf '%s %s %s %s %s\n' "$id" "$state" "$code" "$pid" "${stat[21]-}"
        done
}
# remember: what the following checks compare with.
remember() {
    daemon=$(daemon_pid)
    before=$(snapshot)
}
unchanged() {
    snapshot >$work/after
    diff <(printf '%s\n' "$before") $work/after >$work/difference || {
        head -n 20 $work/difference
        return 1
    }
}
count() { grep -c "$@" <<<"$before"; }
pid_of() { snapshot | awk -v "id=$1" '$1 == id { print $4 }'; }
state_of() { snapshot | awk -v "id=$1" '$1 == id { print $2 }'; }
is_state() { [[ $(state_of "$1") == "$2" ]]; }
has_ended() { [[ ! -e /proc/$1 ]]; }
remembered_pids() { awk '$4 > 0 { print $4 }' <<<"$before"; }
all_ended() {
    local pid
    for pid in $(remembered_pids); do has_ended "$pid" || return 1; done
}
no_containers() { [[ -z $(timeout 20 zncctl list --quiet) ]]; }
nothing_stored() { [[ -z $(ls -A /var/lib/zncontainer/containers) ]]; }

# survived WHAT: a new daemon serves, and the containers are as they were remembered. systemd has one descriptor for
# each.
survived() {
    check "$1: a new daemon serves" eventually is_new_daemon
    check "$1: it answers" eventually answers
    check "$1: all containers go on" unchanged
    check "$1: systemd holds their descriptors" is_property NFileDescriptorStore "$(count .)"
    check "$1: the logs go on" eventually log_grows
    check "$1: no line of a log is missing" log_is_whole
}

log_lines() { timeout 20 zncctl logs counts | wc -l; }
log_grows() {
    local lines
    lines=$(log_lines)
    sleep 1
    [[ $(log_lines) -gt $lines ]]
}
log_is_whole() { zncctl logs counts | awk '$2 != NR { exit 1 }'; }

# start_some N: containers that sleep, started by the daemon that runs.
start_some() {
    local n
    for ((n = 1; n <= $1; n++)); do run_bundle "sleeps-$n" sleep 100000 || return; done
}
# run_bundle ID ARGUMENT...: a container whose program runs in the background. Options of zncctl are in `more`.
more=()
run_bundle() {
    local bundle=$work/bundles/$1 words
    words=$(printf '%s\n' "${@:2}" | jq --raw-input . | jq --slurp .)
    mkdir -p "$bundle"/rootfs/{bin,proc,dev,sys}
    cp /tests/busybox "$bundle/rootfs/bin/"
    for applet in sh sleep cat; do ln -sf busybox "$bundle/rootfs/bin/$applet"; done
    jq -n --arg shared $work/shared --argjson words "$words" '{ociVersion: "1.0.2", root: {path: "rootfs"},
        process: {args: $words, cwd: "/", env: ["PATH=/bin"]},
        mounts: [{destination: "/shared", type: "bind", source: $shared}]}' >"$bundle/config.json"
    run zncctl run --detach "${more[@]}" --bundle "$bundle" --name "$1"
    return "$status"
}

# Calls the daemon all the time, and notes the calls that fail.
start_calling() {
    : >$work/failed_calls
    : >$work/calls
    : >$work/calling
    while [[ -e $work/calling ]]; do
        echo >>$work/calls
        timeout 30 zncctl list >/dev/null 2>>$work/failed_calls || echo "call $(wc -l <$work/calls) failed" >>$work/failed_calls
    done &
    caller=$!
}
stop_calling() {
    rm $work/calling
    wait "$caller"
    cat $work/failed_calls
    [[ -s $work/calls && ! -s $work/failed_calls ]]
}

# ---- what a removal may leave

# Mounts, files, control groups, queues, and processes of the packages. Files of systemd, of dpkg and of this test, and
# groups of other units, come and go. The empty group above those of containers stays until the machine is restarted.
inventory() {
    awk '{ print "mount", $5 }' /proc/self/mountinfo
    find / -xdev \( -path $work -o -path /var/lib/dpkg -o -path /var/log -o -path /var/lib/systemd/random-seed -o \
        -path /var/cache/ldconfig -o -path '/etc/ld.so.cache*' \) -prune -o -printf 'file %p\n'
    find /run -path /run/systemd -prune -o -path /run/log -prune -o -printf 'file %p\n'
    find /dev/mqueue /dev/shm -mindepth 1 -printf 'file %p\n'
    find /sys/fs/cgroup -mindepth 1 -type d ! -path '/sys/fs/cgroup/*.slice/*' ! -path '/sys/fs/cgroup/*.scope*' \
        ! -path /sys/fs/cgroup/zarnel -printf 'group %p\n'
    grep -hs '^zn' /proc/[0-9]*/comm | sed 's/^/process /'
}
nothing_left() {
    inventory | sort >$work/inventory.after
    diff $work/inventory.before $work/inventory.after >$work/difference || {
        head -n 30 $work/difference
        return 1
    }
}

mkdir -p $work/shared $work/bundles
: >$work/out
: >$work/err
chmod 0755 /root
mount -t mqueue mqueue /dev/mqueue 2>/dev/null || mountpoint -q /dev/mqueue
/tests/busybox insmod /tests/overlay.ko
printf '%s, kernel %s\n' "$(systemctl --version | head -1)" "$(uname -r)"
inventory | sort >$work/inventory.before
first=$(dpkg-deb --field "$(echo /tests/first/zncontainer-tools*)" Version)
second=$(dpkg-deb --field "$(echo /tests/second/zncontainer-tools*)" Version)

# ---- the installation

section 'installation'
install_packages first
check 'the packages are installed' test "$status/$(installed)" = "0/$first"
check 'the installation starts the daemon' is_property ActiveState active
check 'the daemon is enabled' systemctl --quiet is-enabled zncd.service
check 'it answers' answers
options --keep
succeeds 'it is restarted with --keep' systemctl restart zncd
check 'it has the option' grep -qz -e '^--keep$' "/proc/$(daemon_pid)/cmdline"

# ---- containers of all kinds

section 'containers'
check "$many containers sleep" start_some $many
check 'a program counts' run_bundle counts sh -c 'while :; do echo line $((n += 1)); sleep 0.5; done'
for code in 41 42 43; do
    mkfifo $work/shared/$code
    check "a program will exit with $code" run_bundle "exits-$code" sh -c "read line </shared/$code; exit $code"
done
check 'a program will be killed' run_bundle killed sleep 100000
more=(--memory 64m --pids-limit 50 --cpus 0.5)
check 'a program has limits' run_bundle limited sleep 100000
more=()
check 'a program is to be paused' run_bundle paused sleep 100000
succeeds 'it is paused' zncctl pause paused
succeeds 'an image is run' zncctl run --detach --network none --name of-image /tests/image:latest sleep 100000
succeeds 'a container is only created' zncctl create created $work/bundles/sleeps-1
check 'a program ends before' run_bundle ended sh -c 'exit 7'
succeeds 'its end is waited for' zncctl wait --timeout 60 ended
group=/sys/fs/cgroup$(cut -d: -f3 "/proc/$(pid_of limited)/cgroup")
limits() { tail -n +1 "$group"/{memory.max,pids.max,cpu.max}; }
limits_before=$(limits)
has_limits() { [[ $(limits) == "$limits_before" ]]; }
check 'the limits are set' test "$(tr '\n' ' ' <"$group/memory.max")" = '67108864 '
check 'programs are not in the group of the unit' test "${group#/sys/fs/cgroup/zarnel/}" != "$group"
remember
check 'all run' test "$(count ' running ')" -eq $((many + 7))

# ---- restarts

section 'restart'
start_calling
succeeds 'systemctl restart' systemctl restart zncd
check 'clients that call meanwhile are answered' stop_calling
survived 'restart'
systemctl daemon-reload
check 'the limits hold after daemon-reload' has_limits
remember
systemctl daemon-reexec
succeeds 'restart after daemon-reexec' systemctl restart zncd
survived 'restart after daemon-reexec'
check 'the limits hold' has_limits

section 'killed daemon'
remember
succeeds 'the daemon is killed' systemctl kill --kill-whom=main --signal=KILL zncd
survived 'killed daemon'

# While no daemon runs: systemd starts the next one when the file is removed.
section 'while no daemon runs'
mkdir -p /etc/systemd/system/zncd.service.d
cat >/etc/systemd/system/zncd.service.d/wait.conf <<EOF
[Service]
ExecStartPre=+/bin/sh -c 'while [ -e $work/hold ]; do : >$work/held; sleep 0.1; done'
EOF
systemctl daemon-reload
remember
: >$work/hold
systemctl --no-block restart zncd
check 'the daemon ends' eventually test -e $work/held
check 'no daemon runs' not any_daemon
ends=()
for id in exits-41 exits-42 killed; do ends+=("$(awk -v "id=$id" '$1 == id { print $4 }' <<<"$before")"); done
echo >$work/shared/41
echo >$work/shared/42
kill -KILL "${ends[2]}"
for pid in "${ends[@]}"; do check 'a program ends meanwhile' eventually has_ended "$pid"; done
clients=()
call() {
    timeout 60 zncctl "$@" >>$work/out 2>>$work/err </dev/null &
    clients+=($!)
}
: >$work/out
: >$work/err
call state sleeps-1
call list
call create --bundle $work/bundles/sleeps-2 meanwhile
call kill --signal=CONT sleeps-3
rm $work/hold
called=0
for client in "${clients[@]}"; do wait "$client" || called=$?; done
status=$called
check 'clients that call meanwhile wait for the next daemon' test $called -eq 0
check 'a new daemon serves' eventually is_new_daemon
rm -r /etc/systemd/system/zncd.service.d
systemctl daemon-reload
check 'what a client asked for meanwhile was done' is_state meanwhile created
for code in 41 42; do
    run zncctl wait --timeout 20 exits-$code
    check "a program that ended meanwhile exited with $code" grep -qw "$code" $work/out
done
run zncctl wait --timeout 20 killed
check 'a program that was killed meanwhile' grep -qw 137 $work/out
others() { grep -vE '^(exits-4[12]|killed|meanwhile) '; }
rest_unchanged() { diff <(others <<<"$before") <(snapshot | others); }
check 'the other containers go on' rest_unchanged

# ---- containers that were taken over

section 'containers that were taken over'
remember
succeeds 'a paused one is resumed' zncctl resume paused
check 'it runs' is_state paused running
succeeds 'a created one is started' zncctl start created
check 'it runs' is_state created running
succeeds 'a program is started in one' zncctl exec of-image cat /etc/greeting
check 'it sees the files of the image' test "$out" = 'from the image'
succeeds 'one is killed' zncctl kill --signal=KILL sleeps-1
succeeds 'its end is known' zncctl wait --timeout 30 sleeps-1
check 'with its code' grep -qw 137 $work/out
succeeds 'it is deleted' zncctl delete sleeps-1
succeeds 'one that ended meanwhile is deleted' zncctl delete exits-41
succeeds 'a new one has the name' zncctl run --detach --bundle $work/bundles/sleeps-1 --name sleeps-1
succeeds 'others are deleted' zncctl delete --force exits-42 killed meanwhile ended

# ---- upgrades

section 'upgrade'
remember
start_calling
install_packages second
check 'the upgrade succeeds' test "$status/$(installed)" = "0/$second"
check 'clients that call meanwhile are answered' stop_calling
survived 'upgrade'
check 'upgrade: the daemon is the new program' runs_installed_program
check 'upgrade: the limits hold' has_limits
echo >$work/shared/43
run zncctl wait --timeout 60 exits-43
check 'upgrade: the exit code of a program that ends later' grep -qw 43 $work/out
section 'going back'
remember
install_packages first
check 'going back succeeds' test "$status/$(installed)" = "0/$first"
survived 'going back'
check 'going back: the daemon is the older program' runs_installed_program

# ---- failures of the daemon

section 'failures'
remember
for n in 1 2 3 4 5 6 7; do
    systemctl kill --kill-whom=main --signal=KILL zncd
    eventually is_new_daemon
    daemon=$(daemon_pid)
done
daemon=0
survived 'killed seven times in a row'
remember
options --keep --no-such-option
run systemctl restart zncd
check 'a daemon with an unknown option does not start' test "$status" -ne 0
sleep 5
still_there() {
    local pid
    for pid in $(remembered_pids); do [[ -e /proc/$pid ]] || return 1; done
}
check 'the containers go on without it' still_there
options --keep
succeeds 'it is started with the right options' systemctl restart zncd
survived 'after wrong options'

# The kernel kills the keeper of one container for lack of memory (sysrq-f).
section 'lack of memory'
remember
program=$(pid_of sleeps-4)
keeper=
for process in /proc/[0-9]*; do
    if [[ $(readlink "$process/ns/pid") == "$(readlink "/proc/$program/ns/pid")" && ${process#/proc/} != "$program" ]]; then
        keeper=${process#/proc/}
    fi
done
echo 1000 >"/proc/$keeper/oom_score_adj"
echo f >/proc/sysrq-trigger
check 'the keeper of a container is killed' eventually has_ended "$keeper"
check 'its container has ended' eventually is_state sleeps-4 exited
check 'the daemon goes on' is_same_daemon
others() { grep -v '^sleeps-4 '; }
check 'the other containers go on' rest_unchanged
succeeds 'it is deleted' zncctl delete sleeps-4

# ---- without the option

section 'without --keep'
rm $settings
remember
install_packages second
check 'an upgrade after the option was removed succeeds' test "$status" -eq 0
check 'it does not restart the daemon' is_same_daemon
check 'it says so' grep -q 'was not restarted' $work/err
check 'it ends no container' unchanged
succeeds 'the daemon is restarted' systemctl restart zncd
check 'then the containers end' eventually all_ended
check 'they are deleted' no_containers
check 'with what they left on disk' nothing_stored
check 'systemd holds no descriptor' is_property NFileDescriptorStore 0
check 'containers of a daemon without --keep' start_some 2
remember
install_packages first
check 'an upgrade without --keep succeeds' test "$status" -eq 0
check 'it does not restart the daemon' is_same_daemon
check 'it says so' grep -q 'was not restarted' $work/err
check 'it ends no container' unchanged
succeeds 'the new zncctl deletes a container of the older daemon' zncctl delete --force sleeps-2
succeeds 'the daemon is restarted' systemctl restart zncd
check 'the containers end with their daemon' eventually all_ended
check 'they are deleted' no_containers

# ---- how all containers end

section 'ends of all containers'
options --keep
systemctl restart zncd
check 'containers' start_some 3
remember
succeeds 'systemctl stop' systemctl stop zncd
check 'stop ends the containers' eventually all_ended
succeeds 'systemctl start' systemctl start zncd
check 'the next start lists them as stopped' test "$(snapshot | grep -c ' exited ')" -eq 3
succeeds 'they can be deleted' zncctl delete --all
check 'nothing is left on disk' nothing_stored
check 'containers' start_some 3
remember
succeeds 'SIGINT' systemctl kill --signal=INT zncd
check 'SIGINT ends the daemon' eventually is_property ActiveState inactive
check 'SIGINT ends the containers' eventually all_ended
check 'it deletes them' nothing_stored
succeeds 'systemctl start' systemctl start zncd
check 'none is left' no_containers
check 'containers' start_some 3
remember
succeeds 'KILL for all processes of the unit' systemctl kill --signal=KILL zncd
check 'a new daemon serves' eventually is_new_daemon
check 'the containers have ended' eventually all_ended
check 'they are listed as stopped' test "$(snapshot | grep -c ' exited ')" -eq 3
succeeds 'they can be deleted' zncctl delete --all

# ---- removal

section 'removal'
more=(--rm)
check 'containers' run_bundle removed sleep 100000
more=()
check 'containers' start_some 2
succeeds 'an image is run' zncctl run --detach --network none --name of-image /tests/image:latest sleep 100000
remember
run dpkg --remove zncontainer-oci zncontainer-tools libzncontainer1
check 'removing the packages succeeds' test "$status" -eq 0
check 'it ends the containers' eventually all_ended
check 'it stops the daemon' not any_daemon
check 'what is stored stays' test -d /var/lib/zncontainer/layers
rm $settings
run dpkg --purge zncontainer-oci zncontainer-tools libzncontainer1
check 'purging the packages succeeds' test "$status" -eq 0
check 'nothing is left' eventually nothing_left

section 'purge after a stop'
options --keep
install_packages second
check 'the packages are installed again' test "$status" -eq 0
check 'containers' start_some 2
remember
systemctl stop zncd
rm $settings
check 'stop ends the containers' eventually all_ended
run dpkg --purge zncontainer-oci zncontainer-tools libzncontainer1
check 'purging the packages succeeds' test "$status" -eq 0
check 'nothing is left' eventually nothing_left

finish_checks
printf 'keep_machine ended with %d\n' $?
