#!/usr/bin/env bash
# long-run.sh [--keep] [--hours N] [--lives N] [--unpacks N] [--restarts N] - does in short what a machine does in a day:
# a container is run every half minute, an image is unpacked and removed every ten minutes, and the daemon is stopped or
# killed and started again every hour. --hours is the simulated time, 24 by default; the other options set the three
# numbers directly. With --keep, containers go on while the daemon is restarted.
#
# After each tenth, when no container runs, it prints what is in use: the memory and descriptors of the daemon, its
# keepers, mounts, files in the storage base and the runtime directory, records, queues and control groups. It
# fails if any of them grows. The daemon is restarted in the first half only, so that the second half shows the
# memory of one process.
#
# Uses build/release, or the build named by BUILD, in a sandbox. Needs root, umoci and static busybox.
# shellcheck disable=SC2317 # what is called by way of check
set -u
build=${BUILD:-$(cd "$(dirname "$0")/.." && pwd)/build/release}
if [[ -z ${ZNC_LONG_RUN-} ]]; then
    ZNC_LONG_RUN=1 ZNCD=$build/bin/zncd ZNCCTL=$build/bin/zncctl exec "$build/bin/znc_sandbox" -- \
        "$(realpath "$0")" "$@"
fi
# shellcheck source=tests/system/cli/cli_lib.sh
. "$(dirname "$0")/../tests/system/cli/cli_lib.sh"

usage() {
    printf 'usage: long-run.sh [--keep] [--hours N] [--lives N] [--unpacks N] [--restarts N]\n' >&2
    exit 64
}
hours=24 lives='' unpacks='' restarts='' keep=()
if [[ ${1-} == --keep ]]; then
    keep=(--keep)
    shift
fi
while [[ $# -gt 0 ]]; do
    [[ $# -ge 2 && $2 =~ ^[0-9]{1,6}$ ]] || usage
    case $1 in
    --hours) hours=$2 ;;
    --lives) lives=$2 ;;
    --unpacks) unpacks=$2 ;;
    --restarts) restarts=$2 ;;
    *) usage ;;
    esac
    shift 2
done
lives=${lives:-$((hours * 120))} unpacks=${unpacks:-$((hours * 6))} restarts=${restarts:-$hours}
readonly kTenths=10 kSlackKib=256 # of memory: what allocators keep varies by this much

need umoci
need busybox
export ZNCCTL_NETWORK=none
layout=$work/image
make_image "$layout"
queues=$work/queues
mkdir "$queues"
mount -t mqueue queues "$queues"
failures=0
failed_step() {
    failures=$((failures + 1))
    printf 'failed: %s: status %s: %s\n' "$1" "$status" "$err" >&2
}
# step NAME COMMAND...: must end with 0.
step() {
    run "${@:2}"
    [[ $status -eq 0 ]] || failed_step "$1"
}

# ---- what is done

in_background() {
    zncctl run --detach --name "$1" --progress none --os linux --entrypoint /bin/busybox "$layout" sleep "$mark"
}
# Every fourth container runs in the background: its log is read, and it is stopped and deleted.
life() {
    local id=longrun-$1
    if (($1 % 4 != 0)); then
        step run zncctl run --rm --progress none --os linux "$layout"
        [[ $out == 'from the second layer' ]] || failed_step 'output of the container'
        return
    fi
    step 'run in the background' in_background "$id"
    step exec zncctl exec "$id" /bin/busybox true
    step logs zncctl logs "$id"
    step stop zncctl stop --time 0 "$id"
    step delete zncctl delete "$id"
}
unpacked() {
    step unpack zncctl unpack --progress none --os linux "$layout" "$work/bundle-$1"
    rm -rf "$work/bundle-$1"
    step 'storage gc' zncctl storage gc
}
# A container runs meanwhile, and every second daemon is killed.
restarted() {
    step 'run before a restart' in_background "longrun-$1"
    if (($1 % 2 == 0)); then
        stop_daemon
        [[ $status -eq 0 ]] || failed_step 'end of the daemon'
    else
        stop_daemon KILL
    fi
    start_daemon "${keep[@]}"
    if [[ ${#keep[@]} -gt 0 ]]; then step 'exec after a restart' zncctl exec "longrun-$1" /bin/busybox true; fi
    run zncctl delete --force "longrun-$1" # or the record of a container that ended with its daemon
}

# ---- what is measured

# children NAME: how many children of the daemon have this name.
children() {
    pgrep -c -P "$daemon" -x "$1"
}
keepers() { children zn-keeper; }
files() { find "$@" -mindepth 1 -not -path '*/events*' | wc -l; }
groups() { find /sys/fs/cgroup -type d -path '*/zarnel/*longrun*' 2>/dev/null | wc -l; }
# The descriptors of the daemon include those of the spare container, which is made again after each use.
quiet() {
    [[ $(keepers) -eq 0 && $(children zn-spare) -eq 1 && -z $(find "$ZNC_BASE/.trash" -mindepth 1 2>/dev/null) ]]
}
kNames=(memory descriptors keepers mounts files records queues groups)
measure() {
    step 'storage gc' zncctl storage gc
    eventually quiet || failed_step 'waiting until all is deleted'
    values=(
        "$(awk '/^RssAnon/ { print $2 }' "/proc/$daemon/status")"
        "$(find "/proc/$daemon/fd" -mindepth 1 | wc -l)"
        "$(keepers)"
        "$(wc -l </proc/self/mountinfo)"
        "$(files "$ZNC_BASE" /run/zarnel /overlay)"
        "$(find /run/zarnel/ns /run/zarnel/containers "$ZNC_BASE/records" -mindepth 1 2>/dev/null | wc -l)"
        "$(files "$queues")"
        "$(groups)"
    )
}
row() { printf '%8s%8s' "$1" "$2" && printf '%13s' "${@:3}" && echo; }

# share N TENTH: how many of N belong to this tenth, so that all are done in the end.
share() { echo $(($1 * $2 / kTenths - $1 * ($2 - 1) / kTenths)); }

start_daemon "${keep[@]}"
# Once, so that what is made when it is first needed is there.
life 0
life 1
unpacked first
printf '%d containers, %d unpacks, %d restarts of the daemon\n' "$lives" "$unpacks" "$restarts"
row tenth seconds "${kNames[@]}"
measure
row 0 0 "${values[@]}"
base=("${values[@]}")
life_count=2 unpack_count=0 restart_count=0
for ((tenth = 1; tenth <= kTenths; tenth++)); do
    begin=$SECONDS
    now=$(share "$lives" $tenth)
    now_unpacks=$(share "$unpacks" $tenth)
    now_restarts=0
    ((tenth > kTenths / 2)) || now_restarts=$((restarts * tenth * 2 / kTenths - restarts * (tenth - 1) * 2 / kTenths))
    for ((i = 0; i < now || i < now_unpacks || i < now_restarts; i++)); do
        ((i >= now)) || life $((life_count++))
        ((i >= now_unpacks)) || unpacked $((unpack_count++))
        ((i >= now_restarts)) || restarted $((restart_count++))
    done
    measure
    row $tenth $((SECONDS - begin)) "${values[@]}"
    [[ $tenth -ne $((kTenths / 2 + 1)) ]] || middle=${values[0]}
done

# ---- what has grown

check 'every step succeeded' test "$failures" -eq 0
check 'all was done' test "$((life_count - 2))/$unpack_count/$restart_count" = "$lives/$unpacks/$restarts"
check "the memory of the daemon grew by at most $kSlackKib KiB in the second half" \
    test $((values[0] - middle)) -le $kSlackKib
for ((i = 1; i < ${#kNames[@]}; i++)); do
    check "${kNames[i]}: not more than in the beginning" test "${values[i]}" -le "${base[i]}"
done
umount "$queues"
finish
