#!/usr/bin/env bash
# peer-suites.sh [crun|runc|podman]... - runs the test suites of crun, runc and podman with the runtimes crun, runc
# and zncrun, each case with a time limit, and compares the results. As root; installs what is missing, takes the
# suites from Debian's source packages (network on the first run), and works in build/peer-suites, where it writes
# SUITE.tsv and summary.md. The cases run in namespaces and control groups of their own.
# Environment: ZNCRUN, the program (build/release/bin/zncrun); RUNTIMES, those to run anew (the results of others are
# those of an earlier run); FILES, a pattern of the files of cases; CASES, a regular expression of cases.
# Ends with 1 if zncrun fails a case that crun or runc passes and that scripts/peer-suites.txt does not name.
# shellcheck disable=SC1091,SC2016,SC2317 # os-release; texts for other shells; functions called by their names
set -euo pipefail
cd "$(dirname "$0")/.."
scripts=$PWD/scripts
work=$PWD/build/peer-suites
zncrun=$(readlink -f "${ZNCRUN:-build/release/bin/zncrun}")
runtimes=${RUNTIMES:-crun runc zncrun}
files=${FILES:-*}
cases=${CASES:-}
limit=60 # seconds for one case
controllers=(cpu cpuacct cpuset memory devices freezer blkio pids systemd)

fail() {
    printf 'peer-suites.sh: %s\n' "$1" >&2
    exit "${2:-1}"
}

# ---- the suites and what they need

fetch_sources() {
    [[ ! -e $work/src/unpacked ]] || return 0
    rm -rf "$work/src" "$work/apt"
    mkdir -p "$work/src" "$work/apt/lists/partial" "$work/apt/cache/archives/partial"
    local codename
    codename=$(. /etc/os-release && printf '%s' "$VERSION_CODENAME")
    printf 'deb-src http://deb.debian.org/debian %s main\n' "$codename" "$codename-updates" >"$work/apt/sources.list"
    local apt=(apt-get -q -o "Dir::Etc::sourcelist=$work/apt/sources.list" -o Dir::Etc::sourceparts=-
        -o "Dir::State::lists=$work/apt/lists" -o "Dir::Cache=$work/apt/cache" -o APT::Sandbox::User=root)
    "${apt[@]}" update
    (cd "$work/src" && "${apt[@]}" source crun runc libpod)
    for package in crun runc libpod; do
        mv "$work/src/$package"-*/ "$work/src/$package"
    done
    touch "$work/src/unpacked"
}

build_crun() {
    local tests=$work/src/crun/tests
    [[ ! -e $tests/init || ! -e $work/python/libmount.py ]] || return 0
    mkdir -p "$work/include"
    : >"$work/include/config.h"
    # What the cases for mounts use of the module libmount, which Debian does not have.
    mkdir -p "$work/python"
    cat >"$work/python/libmount.py" <<'END'
from types import SimpleNamespace


class Table:
    def __init__(self, path):
        with open(path, encoding="utf-8") as mountinfo:
            self.lines = [line.split() for line in mountinfo if line.strip()]

    def find_target(self, target):
        fields = [line for line in self.lines if line[4] == target][-1]
        end = fields.index("-")
        return SimpleNamespace(vfs_options=fields[5], fs_options=fields[end + 3])
END
    gcc -static -w -O1 -I "$work/include" -o "$tests/init" "$tests/init.c" -lseccomp
}

build_runc() {
    local source=$work/src/runc data arch
    data=$source/tests/integration/testdata
    arch=$(dpkg --print-architecture)
    mkdir -p "$work/go/src/github.com/opencontainers"
    ln -sfn "$source" "$work/go/src/github.com/opencontainers/runc"
    local tool
    for tool in recvtty seccompagent; do
        [[ ! -e $source/contrib/cmd/$tool/$tool ]] || continue
        (cd "$work/go/src/github.com/opencontainers/runc/contrib/cmd/$tool" &&
            GO111MODULE=off GOPATH=$work/go:/usr/share/gocode go build -tags seccomp -o "$tool" .)
    done
    [[ -e $data/busybox-$arch.tar.xz ]] || make_busybox "$data/busybox-$arch.tar.xz"
    [[ -e $data/debian-$arch.tar.xz ]] || make_debian "$data/debian-$arch.tar.xz"
}

# busybox_tree DIR: a small tree of busybox with all its programs.
busybox_tree() {
    local tree=$1 program
    mkdir -p "$tree"/{bin,dev,etc,home,proc,root,run,sys,tmp,usr/bin,usr/sbin,var/log,var/tmp}
    chmod 1777 "$tree/tmp" "$tree/var/tmp"
    cp /bin/busybox "$tree/bin/busybox"
    for program in $(/bin/busybox --list); do
        [[ $program == busybox ]] || ln -f "$tree/bin/busybox" "$tree/bin/$program"
    done
    printf '%s\n' root:x:0:0:root:/root:/bin/sh nobody:x:65534:65534:nobody:/home:/bin/false >"$tree/etc/passwd"
    printf '%s\n' root:x:0: users:x:100: nogroup:x:65534: >"$tree/etc/group"
}

pack_tree() {
    tar -C "$1" --numeric-owner --owner=0 --group=0 -cJf "$2.new" .
    mv "$2.new" "$2"
    rm -rf "$1"
}

make_busybox() {
    busybox_tree "$work/busybox.tmp"
    rmdir "$work/busybox.tmp"/{proc,sys} # runc's cases make links there
    pack_tree "$work/busybox.tmp" "$1"
}

make_debian() {
    debootstrap --variant=minbase "$(. /etc/os-release && printf '%s' "$VERSION_CODENAME")" "$work/debian.tmp" \
        >"$work/debootstrap.log"
    rm -rf "$work/debian.tmp"/var/{cache/apt,lib/apt/lists}/*
    pack_tree "$work/debian.tmp" "$1"
}

# The image that podman's cases want, with the programs they call.
build_podman() {
    [[ ! -e $work/testimage.tar ]] || return 0
    local tree=$work/testimage.tmp
    busybox_tree "$tree"
    mkdir -p "$tree/home/podman"
    printf '20220615\n' >"$tree/home/podman/testimage-id"
    touch --date=@1600000000 "$tree/home/podman/testimage-id"
    printf '#!/bin/sh\necho Confirmed: testimage pause invoked as $0\nwhile :; do sleep 0.1; done\n' >"$tree/home/podman/pause"
    chmod 755 "$tree/home/podman/pause"
    printf '3.16.0\n' >"$tree/etc/alpine-release"
    tar -C "$tree" --numeric-owner --owner=0 --group=0 -cf "$work/testimage.tar" .
    rm -rf "$tree"
}

# ---- the place where cases run: control groups, processes, mounts and network of their own

# Control groups of version 1 only, which crun demands, with the groups of this run as their roots.
mount_groups() {
    umount -R /sys/fs/cgroup
    mount -t tmpfs -o mode=755 cgroup /sys/fs/cgroup
    local controller
    for controller in "${controllers[@]}"; do
        mkdir "/sys/fs/cgroup/$controller"
        case $controller in
        systemd) mount -t cgroup -o none,name=systemd cgroup /sys/fs/cgroup/systemd ;;
        *) mount -t cgroup -o "$controller" cgroup "/sys/fs/cgroup/$controller" ;;
        esac
    done
}

# With frozen processes the PID namespace would not end.
thaw() {
    find /sys/fs/cgroup/freezer -mindepth 2 -name freezer.state -exec sh -c 'for f; do echo THAWED >"$f"; done' x {} +
}

inside() {
    mount_groups
    mount -t tmpfs -o mode=755 tmpfs /run
    export TMPDIR=$3 BATS_TMPDIR=$3
    mkdir -p /run/lock "$TMPDIR/containers" /var/lib/containers
    mount --bind "$TMPDIR/containers" /var/lib/containers
    ip link set lo up
    echo 20000 >/proc/sys/kernel/ns_last_pid # one of crun's cases wants a process id of five digits
    "run_$1" "$2"
    thaw
    chown root:root /dev/null # crun gives it to the user of a program
}

# remove_groups GROUP: in all hierarchies, with those below. They are in use until the last process has ended.
remove_groups() {
    local controller top end=$((SECONDS + 10))
    for controller in "${controllers[@]}"; do
        top=/sys/fs/cgroup/$controller/$1
        while [[ -d $top ]] && ! find "$top" -depth -type d -exec rmdir {} + 2>/dev/null; do
            [[ $SECONDS -lt $end ]] || fail "the control group $top is left"
            sleep 0.1
        done
    done
}

sandboxed() {
    local group=peer-suites-$$ controller file status=0
    for controller in "${controllers[@]}"; do
        mkdir "/sys/fs/cgroup/$controller/$group"
    done
    for file in cpuset.cpus cpuset.mems; do
        cat "/sys/fs/cgroup/cpuset/$file" >"/sys/fs/cgroup/cpuset/$group/$file"
    done
    (
        for controller in "${controllers[@]}"; do
            echo "$BASHPID" >"/sys/fs/cgroup/$controller/$group/cgroup.procs"
        done
        exec unshare --mount --propagation private --pid --fork --kill-child --mount-proc --cgroup --net \
            "$scripts/peer-suites.sh" --inside "$@" "$work/tmp.$$"
    ) || status=$?
    remove_groups "$group"
    rm -rf "$work/tmp.$$"
    return "$status"
}

program_of() {
    case $1 in
    zncrun) printf '%s' "$zncrun" ;;
    *) command -v "$1" ;;
    esac
}

# ---- one suite with one runtime; the results are in results/SUITE.RUNTIME/FILE.tap

# keep SUITE.RUNTIME FILE: standard input as the results of a file; only shown if single cases are run.
keep() {
    if [[ -n $cases ]]; then
        cat
        return
    fi
    mkdir -p "$work/results/$1"
    cat >"$work/results/$1/$2.log"
    tr -d '\r' <"$work/results/$1/$2.log" | sed -nE '/^(not )?ok /p' >"$work/results/$1/$2.tap"
    printf '%s %s: %s of %s\n' "$1" "$2" "$(sed -n '/^ok/p' "$work/results/$1/$2.tap" | wc -l)" \
        "$(wc -l <"$work/results/$1/$2.tap")"
}

crun_cases() {
    local file=$1 name status
    sed -n '/^all_tests/,/^}/s/^ *"\([^"]*\)" *:.*/\1/p' "$file" | while read -r name; do
        [[ $name =~ $cases ]] || continue
        status=0
        RUN_TESTS=$name timeout --kill-after=5 "$limit" /usr/bin/python3 "$file" </dev/null 2>"$TMPDIR/errors" ||
            status=$?
        sed 's/^/# /' "$TMPDIR/errors" && echo # they do not end with a newline
        [[ $status -lt 124 ]] || printf 'not ok 1 - %s # ended with status %s\n' "$name" "$status"
    done
}

run_crun() {
    local file tests=$work/src/crun/tests
    OCI_RUNTIME=$(program_of "$1")
    # runc has neither of these options.
    if [[ $1 == runc ]]; then
        OCI_RUNTIME=$work/runc-for-crun
        cat >"$OCI_RUNTIME" <<'END'
#!/usr/bin/env bash
words=()
while [[ $# -gt 0 ]]; do
    case $1 in
    --cgroup-manager) shift 2 ;;
    --config) if [[ $2 == config.json ]]; then shift 2; else words+=("$1" "$2"); shift 2; fi ;;
    *) words+=("$1"); shift ;;
    esac
done
exec runc "${words[@]}"
END
        chmod 755 "$OCI_RUNTIME"
    fi
    export OCI_RUNTIME INIT=$tests/init PYTHONPATH=$tests:$work/python PYTHONDONTWRITEBYTECODE=1
    cd "$work/src/crun" # one of the cases wants tests/init there
    for file in "$tests"/test_*.py; do
        # shellcheck disable=SC2053 # a pattern
        [[ $(basename "$file" .py) == $files ]] || continue
        crun_cases "$file" | keep "crun.$1" "$(basename "$file" .py)"
    done
}

# Each case is run by itself: the time limit of bats is a process that cases with "wait" would wait for.
bats_cases() {
    local file=$1 name pattern status
    sed -nE "s/^@test +[\"'](.*)[\"'] *\{.*/\1/p" "$file" | while read -r name; do
        [[ $name =~ $cases ]] || continue
        pattern=$(sed 's/[][\\.*+?(){}^$|/]/\\&/g' <<<"$name")
        status=0
        timeout --kill-after=5 $((limit + 5)) script -qec \
            "$(printf '%q ' timeout --foreground --kill-after=5 "$limit" bats --tap -f "^$pattern\$" "$file")" \
            /dev/null </dev/null 2>&1 || status=$?
        [[ $status -lt 124 ]] || printf '\nnot ok 1 %s # ended with status %s\n' "$name" "$status"
    done
}

run_runc() {
    RUNC=$(program_of "$1")
    export RUNC GOCACHE=$work/go/cache
    run_bats runc "$1" "$work/src/runc/tests/integration"
}

run_podman() {
    # The limits that podman sets by default need CAP_SYS_RESOURCE.
    printf '[containers]\ndefault_ulimits = ["nofile=20000:20000", "nproc=32768:32768"]\n[engine]\ncgroup_manager = "cgroupfs"\nevents_logger = "file"\n' \
        >"$work/containers.conf"
    export CONTAINERS_CONF=$work/containers.conf
    PODMAN="podman --runtime $(program_of "$1")"
    export PODMAN
    podman import --change 'ENV PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin' \
        --change 'WORKDIR /home/podman' --change 'LABEL created_by=test/system/build-testimage' \
        --change 'LABEL created_at=2022-06-15T00:00:00Z' \
        --change 'CMD ["/bin/echo", "This container is intended for podman CI testing"]' \
        "$work/testimage.tar" quay.io/libpod/testimage:20220615 >/dev/null
    run_bats podman "$1" "$work/src/libpod/test/system" \
        030-run 035-logs 065-cp 075-exec 130-kill 160-volumes 200-pod 220-healthcheck 420-cgroups
}

# run_bats SUITE RUNTIME DIR [FILE]...
run_bats() {
    local suite=$1 runtime=$2 file
    cd "$3"
    shift 3
    [[ $# -gt 0 ]] || set -- *.bats
    for file; do
        file=${file%.bats}
        # shellcheck disable=SC2053 # a pattern
        [[ $file == $files && $file != checkpoint ]] || continue
        bats_cases "$file.bats" | keep "$suite.$runtime" "$file"
    done
}

# ---- the comparison

# results SUITE RUNTIME: "FILE: CASE<tab>pass|fail|skip" for each case.
results() {
    local tap
    for tap in "$work/results/$1.$2"/*.tap; do
        [[ -e $tap ]] || continue
        awk -v file="$(basename "$tap" .tap)" '{
            result = /^not ok/ ? "fail" : /# ?(skip|SKIP)/ ? "skip" : "pass"
            sub(/^(not )?ok [0-9]+ (- )?/, ""); sub(/ *# ?(skip|SKIP|timeout|ended).*$/, ""); sub(/ in [0-9]+ms$/, "")
            print file ": " $0 "\t" result
        }' "$tap"
    done
}

# compare SUITE: writes the table, and a line for each case that only zncrun fails to unnamed.
compare() {
    {
        printf 'case\tcrun\trunc\tzncrun\n'
        for runtime in crun runc zncrun; do
            results "$1" "$runtime" | sed "s/^/$runtime\t/"
        done | awk -F '\t' '{ if (!($2 in seen)) { seen[$2] = 1; order[++n] = $2 } result[$2, $1] = $3 }
            function of(name, runtime) { return (name, runtime) in result ? result[name, runtime] : "none" }
            END { for (i = 1; i <= n; i++) { c = order[i]
                print c "\t" of(c, "crun") "\t" of(c, "runc") "\t" of(c, "zncrun") } }'
    } >"$work/$1.tsv"
    awk -F '\t' -v suite="$1" 'NR > 1 && ($2 == "pass" || $3 == "pass") && $4 != "pass" { print suite "\t" $1 "\t" $4 }' \
        "$work/$1.tsv" >"$work/$1.differences"
}

# counts SUITE: rows of the summary.
counts() {
    local column=2 runtime
    for runtime in crun runc zncrun; do
        awk -F '\t' -v column=$column -v suite="$1" -v runtime="$runtime" 'NR > 1 { count[$column]++ }
            END { printf "| %s | %s | %d | %d | %d | %d |\n", suite, runtime, count["pass"], count["fail"], count["skip"], count["none"] }' \
            "$work/$1.tsv"
        column=$((column + 1))
    done
}

# differences SUITE: the named differences, then the others. Ends with 1 if there are others.
differences() {
    local suite name result reason others=0
    while IFS=$'\t' read -r suite name result; do
        reason=$(awk -F '\t' -v suite="$suite" -v name="$name" \
            '$1 == suite && $2 == name { print $3 }' "$scripts/peer-suites.txt")
        [[ -n $reason ]] || others=1
        printf -- '- %s, %s (%s): %s\n' "$suite" "$name" "$result" "${reason:-NOT NAMED}"
    done <"$work/$1.differences"
    return $others
}

if [[ ${1:-} == --inside ]]; then
    inside "$2" "$3" "$4"
    exit
fi
[[ $# -gt 0 ]] || set -- crun runc podman
for suite; do
    [[ $suite =~ ^(crun|runc|podman)$ ]] || fail 'usage: peer-suites.sh [crun|runc|podman]...' 64
done
[[ $(id -u) -eq 0 ]] || fail 'only root can run the suites'
[[ -x $zncrun ]] || fail "there is no program $zncrun" 64
[[ -d /sys/fs/cgroup/memory ]] || fail 'the suites run with control groups of version 1 only' 77
mkdir -p "$work"
"$scripts/install-deps.sh" suites
clean_up() {
    remove_groups "peer-suites-$$"
    rm -rf "$work/tmp.$$"
}
trap clean_up EXIT
trap 'exit 143' INT TERM
fetch_sources
status=0
for suite; do
    "build_$suite"
    for runtime in $runtimes; do
        sandboxed "$suite" "$runtime"
    done
done
[[ -z $cases ]] || exit 0
(
    printf '| Suite | Runtime | Passed | Failed | Skipped | Not run |\n|---|---|---|---|---|---|\n'
    for suite; do
        compare "$suite"
        counts "$suite"
    done
    printf '\nCases that crun or runc passes and zncrun does not:\n'
    for suite; do
        differences "$suite" || status=1
    done
    exit "$status"
) >"$work/summary.md" || status=$?
cat "$work/summary.md"
exit "$status"
