#!/usr/bin/env bash
# engines-test.sh [ZNCRUN] - runs container engines with zncrun as their runtime, as root, podman also as an ordinary
# user, offline, and prints one line for each check. podman, containerd and docker are configured by the files in
# packaging/engines. All state is in a temporary directory. Needs podman, conmon and busybox-static (install-deps.sh
# compare).
# shellcheck disable=SC2016,SC2317 # texts for shells in containers; functions that are called by check
set -uo pipefail

runtime=$(readlink -f "${1:-build/release/bin/zncrun}")
[[ -x $runtime ]] || {
    printf 'engines-test.sh: there is no program %s\n' "$runtime" >&2
    exit 64
}
for needed in podman conmon busybox; do
    command -v "$needed" >/dev/null || {
        printf 'skipped: %s is not installed\n' "$needed"
        exit 77
    }
done

work=$(mktemp -d /tmp/engines-test.XXXXXX)
examples=$(dirname "$0")/../packaging/engines
probe=$(dirname "$runtime")/znc_probe # of the tests
mkdir "$work/bin"
containerd_pid=''
docker_pid=''
rootless=''
rootless_pid=''
good=0
bad=0
# podman raises these limits by default, which needs CAP_SYS_RESOURCE.
limits=(--ulimit nofile=20000:20000 --ulimit nproc=32768:32768)

root_engine=(podman --root "$work/root" --runroot "$work/run" --tmpdir "$work/tmp" --cgroup-manager cgroupfs
    --events-backend file --runtime "$runtime")
engine=("${root_engine[@]}")
# example NAME DIRECTORY: one of the files for engines, with this program.
example() { sed "s|@ZNC_BINDIR@/zncrun|$2/zncrun|" "$examples/$1.in"; }
podman_() { timeout --foreground 90 "${engine[@]}" "$@"; }
run() { podman_ run --network none "${limits[@]}" "$@"; }

cleanup() {
    local daemon pid
    for daemon in $containerd_pid $docker_pid; do
        { kill "$daemon" && wait "$daemon"; } 2>/dev/null
    done
    if [[ -n $rootless_pid ]]; then
        nobody_left || remove_rootless
        # podman keeps a process for its user namespace; the user has no processes but those of this script.
        for pid in $(pgrep -U "$user") "$rootless_pid"; do
            kill "$pid"
        done
        wait "$rootless_pid"
    fi >/dev/null 2>&1
    engine=("${root_engine[@]}")
    podman_ rm --all --force --time 0 >/dev/null 2>&1
    podman_ system prune --all --force >/dev/null 2>&1
    rm -rf "$work" "$rootless"
}
trap cleanup EXIT

# check NAME COMMAND...: whether the command succeeds.
check() {
    local name=$1
    shift
    if "$@" >"$work/out" 2>&1; then
        good=$((good + 1))
        printf 'ok - %s\n' "$name"
    else
        bad=$((bad + 1))
        printf 'not ok - %s\n' "$name"
        sed 's/^/    /' "$work/out"
    fi
}
# is WANTED COMMAND...: whether the command prints that.
is() {
    local wanted=$1 got
    shift
    got=$("$@" 2>&1 | tr -d '\r')
    [[ $got == "$wanted" ]] || {
        printf 'wanted: %s\ngot: %s\n' "$wanted" "$got"
        return 1
    }
}
# ends STATUS COMMAND...: whether the command exits with that status.
ends() {
    local wanted=$1 got=0
    shift
    "$@" || got=$?
    [[ $got -eq $wanted ]] || {
        printf 'wanted exit status %s, got %s\n' "$wanted" "$got"
        return 1
    }
}
# soon COMMAND...: whether the command succeeds within ten seconds.
soon() {
    local deadline=$((SECONDS + 10))
    until "$@"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.1
    done
    return 0
}

make_image() {
    local tree=$work/tree
    mkdir -p "$tree"/{bin,etc,proc,dev,sys,root,var/data}
    cp "$(command -v busybox)" "$tree/bin/busybox"
    local applet
    for applet in sh cat echo id ls sleep touch stat grep true mount hostname env kill readlink tty wc test mkdir; do
        ln -s busybox "$tree/bin/$applet"
    done
    [[ ! -x $probe ]] || cp "$probe" "$tree/bin/probe"
    mkdir -p "$tree/tmp" && chmod 1777 "$tree/tmp"
    printf 'root:x:0:0::/root:/bin/sh\nuser:x:1234:1234::/:/bin/sh\n' >"$tree/etc/passwd"
    printf 'root:x:0:\nuser:x:1234:\n' >"$tree/etc/group"
    echo kept >"$tree/var/data/file"
    tar -C "$tree" -c . | podman_ import --change 'ENV PATH=/bin' - localhost/engines:1
}

state_is() { [[ $(podman_ inspect --format '{{.State.Status}}' "$1") == "$2" ]]; }
logs_have() { podman_ logs "$1" 2>/dev/null | grep -q "$2"; }

feed_given() { echo given | run -i --rm localhost/engines:1 cat; }
top_shows() { podman_ top "$1" | grep -q "$2"; }
writes_layer() {
    run --name writer localhost/engines:1 touch /etc/new && podman_ diff writer | grep -q 'A /etc/new'
}
writes_volume() {
    run --rm -v "$work/volume:/mnt" localhost/engines:1 touch /mnt/new && test -e "$work/volume/new"
}
shares_network() {
    run -d --name net localhost/engines:1 sleep 100 &&
        podman_ run --rm "${limits[@]}" --network container:net localhost/engines:1 true
}

podman_lifecycle() {
    check 'podman run prints what the program prints' is hello run --rm localhost/engines:1 echo hello
    check 'podman run passes the exit status' ends 7 run --rm localhost/engines:1 sh -c 'exit 7'
    check 'podman run ends with 127 for a missing program' ends 127 run --rm localhost/engines:1 nosuch
    check 'podman run ends with 126 for a file that is no program' \
        ends 126 run --rm localhost/engines:1 /etc/passwd
    check 'the program is the first process' is 1 run --rm localhost/engines:1 sh -c 'echo $$'
    check 'standard input reaches the program' is given feed_given
    check 'podman run -d' run -d --name web localhost/engines:1 \
        sh -c 'trap "exit 3" TERM; trap "exit 4" USR1; echo up; while true; do sleep 0.1; done'
    check 'the program runs' soon logs_have web up
    check 'podman inspect says running' state_is web running
    check 'podman exec' is '/' podman_ exec web sh -c 'cd / && echo $PWD'
    check 'podman exec passes the exit status' ends 9 podman_ exec web sh -c 'exit 9'
    check 'podman exec ends with 127 for a missing program' ends 127 podman_ exec web nosuch
    check 'podman exec --user' is 'uid=1234(user) gid=1234(user)' podman_ exec --user user web id
    check 'podman exec -d' podman_ exec -d web touch /tmp/detached
    check 'the detached program ran' soon podman_ exec web test -e /tmp/detached
    check 'podman top' soon top_shows web sleep
    check 'podman pause' podman_ pause web
    check 'podman inspect says paused' state_is web paused
    check 'podman unpause' podman_ unpause web
    check 'podman kill -s with a name' podman_ kill -s USR1 web
    check 'the signal reached the program' soon state_is web exited
    check 'podman start again' podman_ start web
    check 'the program runs again' soon logs_have web up
    check 'podman stop lets the program end' podman_ stop --time 10 web
    check 'podman inspect shows the exit status after stop' is 3 podman_ inspect --format '{{.State.ExitCode}}' web
    check 'podman rm' podman_ rm web
    check 'nothing is left of the container' ends 1 podman_ container exists web
}

podman_settings() {
    local status='grep -E'
    check '--user' is '1234' run --rm --user user localhost/engines:1 id -u
    check '--read-only' ends 1 run --rm --read-only localhost/engines:1 touch /etc/new
    check '--read-only leaves /tmp writable' run --rm --read-only localhost/engines:1 touch /tmp/new
    check 'what is written is in the layer of the container' writes_layer
    mkdir -p "$work/volume"
    echo volume >"$work/volume/file"
    check '-v' is volume run --rm -v "$work/volume:/mnt" localhost/engines:1 cat /mnt/file
    check '-v :ro' ends 1 run --rm -v "$work/volume:/mnt:ro" localhost/engines:1 touch /mnt/new
    check '-v writes through' writes_volume
    check '--tmpfs shows what the image has there' is kept \
        run --rm --tmpfs /var/data localhost/engines:1 cat /var/data/file
    check '--hostname' is box run --rm --hostname box localhost/engines:1 hostname
    check '--env' is value run --rm --env NAME=value localhost/engines:1 sh -c 'echo $NAME'
    check '--workdir' is /var/data run --rm --workdir /var/data localhost/engines:1 sh -c 'echo $PWD'
    check '--cap-drop all' is 'CapEff: 0000000000000000' \
        run --rm --cap-drop all localhost/engines:1 sh -c "$status CapEff /proc/self/status | { read -r a b; echo \$a \$b; }"
    check '--security-opt no-new-privileges' is 'NoNewPrivs: 1' \
        run --rm --security-opt no-new-privileges localhost/engines:1 \
        sh -c "$status NoNewPrivs /proc/self/status | { read -r a b; echo \$a \$b; }"
    check 'the profile of system calls is in force' is 'Seccomp: 2' run --rm localhost/engines:1 \
        sh -c "$status Seccomp: /proc/self/status | { read -r a b; echo \$a \$b; }"
    check '--privileged' run --rm --privileged localhost/engines:1 mount -t tmpfs none /tmp
    check '--device' run --rm --device /dev/null:/dev/other localhost/engines:1 test -c /dev/other
    check '--ulimit' is 512 run --rm --ulimit nofile=512:512 localhost/engines:1 sh -c 'ulimit -n'
    check '--sysctl' is 1 run --rm --sysctl net.ipv4.ip_forward=1 localhost/engines:1 \
        cat /proc/sys/net/ipv4/ip_forward
    check '--pid host' ends 1 run --rm --pid host localhost/engines:1 sh -c 'test $$ = 1'
    check '--uidmap' is '100000 0' run --rm --uidmap 0:100000:5000 --gidmap 0:100000:5000 localhost/engines:1 \
        sh -c 'read -r _ outside _ </proc/self/uid_map; echo $outside $(stat -c %u /etc/passwd)'
    check '--network of another container' shares_network
    check '--pid of another container' run --rm --pid container:net localhost/engines:1 \
        sh -c 'grep -q sleep /proc/1/cmdline'
    check 'podman rm --force' podman_ rm --force --time 0 net
    check '-t gives the program a terminal' is /dev/pts/0 run --rm -t localhost/engines:1 tty
}

builds_image() {
    mkdir -p "$work/build"
    printf 'FROM localhost/engines:1\nRUN echo built >/built\n' >"$work/build/Dockerfile"
    podman_ build "${limits[@]}" --network none --tag localhost/built:1 "$work/build"
}

podman_limits() {
    check 'podman build' builds_image
    check 'the built file is in the image' is built run --rm localhost/built:1 cat /built
    local group=/sys/fs/cgroup/memory file=memory.limit_in_bytes
    [[ -d $group ]] || { group=/sys/fs/cgroup && file=memory.max; }
    check '-m' is $((64 << 20)) run --rm -m 64m localhost/engines:1 cat "$group/$file"
    check '--pids-limit' run --rm --pids-limit 20 localhost/engines:1 true
    check 'podman run -d with a limit' run -d --name limited -m 64m localhost/engines:1 sleep 100
    check 'podman stats' podman_ stats --no-stream limited
    check 'podman exec -t' is yes podman_ exec -t limited sh -c 'test -t 0 && echo yes'
    check 'podman kill' podman_ kill limited
    check 'podman rm of a killed container' podman_ rm --force limited
}


ctr_() { timeout --foreground 60 ctr --address "$work/containerd.sock" "$@"; }
ctr_run() { ctr_ run --runc-binary "$runtime" "$@"; }
deleted_with() { ctr_ task delete "$1" 2>&1 | grep -q "exit code $2"; }
task_is() { ctr_ task ls | grep -qE "^$1 .*$2"; }

start_containerd() {
    cat >"$work/containerd.toml" <<END
version = 2
root = "$work/containerd/root"
state = "$work/containerd/state"
disabled_plugins = ["io.containerd.grpc.v1.cri", "io.containerd.internal.v1.opt"]
[grpc]
  address = "$work/containerd.sock"
[ttrpc]
  address = "$work/containerd.sock.ttrpc"
END
    containerd --config "$work/containerd.toml" >"$work/containerd.log" 2>&1 &
    containerd_pid=$!
    podman_ save --quiet --format docker-archive --output "$work/image.tar" localhost/engines:1
    soon ctr_ version && ctr_ image import "$work/image.tar"
}

containerd_knows() {
    { printf 'version = 2\n' && example containerd.toml "$work/bin"; } >"$work/example.toml"
    containerd --config "$work/example.toml" config dump |
        awk -v name="BinaryName = \"$work/bin/zncrun\"" '/runtimes.zncrun.options\]/ { here = 1 } here && index($0, name) { found = 1 } END { exit !found }'
}

containerd_lifecycle() {
    local image=localhost/engines:1
    check 'containerd has the image' start_containerd
    check 'containerd takes the example of its configuration' containerd_knows
    check 'ctr run prints what the program prints' is hello ctr_run --rm $image one echo hello
    check 'ctr run passes the exit status' ends 7 ctr_run --rm $image two sh -c 'exit 7'
    check 'ctr run fails for a missing program' ends 1 ctr_run --rm $image three nosuch
    check 'ctr run -d' ctr_run -d $image web sh -c 'trap "exit 3" TERM; while :; do sleep 0.1; done'
    check 'the task runs' task_is web RUNNING
    check 'ctr task exec' is inside ctr_ task exec --exec-id first web echo inside
    check 'ctr task pause' ctr_ task pause web
    check 'the task is paused' task_is web PAUSED
    check 'ctr task resume' ctr_ task resume web
    check 'ctr task ps' ctr_ task ps web
    check 'ctr task metrics' ctr_ task metrics web
    check 'ctr task kill' ctr_ task kill --signal SIGTERM web
    check 'the task has stopped' soon task_is web STOPPED
    check 'ctr task delete gives the exit status' deleted_with web 3
    check 'ctr container rm' ctr_ container rm web
}

docker_() { timeout --foreground 60 docker --host "unix://$work/docker.sock" "$@"; }
docker_run() { docker_ run --network none "$@"; }
docker_state_is() { [[ $(docker_ inspect --format '{{.State.Status}}' "$1") == "$2" ]]; }

start_docker() {
    ln -sf "$runtime" "$work/bin/zncrun"
    example docker-daemon.json "$work/bin" >"$work/daemon.json"
    dockerd --config-file "$work/daemon.json" --iptables=false --ip6tables=false --bridge=none \
        --default-runtime zncrun --exec-opt native.cgroupdriver=cgroupfs --data-root "$work/docker" \
        --exec-root "$work/docker-run" --pidfile "$work/docker.pid" \
        --host "unix://$work/docker.sock" >"$work/docker.log" 2>&1 &
    docker_pid=$!
    soon docker_ version && tar -C "$work/tree" -c . | docker_ import --change 'ENV PATH=/bin' - engines:1
}

docker_lifecycle() {
    check 'docker has the image' start_docker
    check 'docker run prints what the program prints' is hello docker_run --rm engines:1 echo hello
    check 'docker run passes the exit status' ends 7 docker_run --rm engines:1 sh -c 'exit 7'
    check 'docker run ends with 127 for a missing program' ends 127 docker_run --rm engines:1 nosuch
    check 'docker run -d' docker_run -d --name web -m 64m engines:1 \
        sh -c 'trap "exit 3" TERM; while true; do sleep 0.1; done'
    check 'docker exec' is /root docker_ exec web sh -c 'echo $HOME'
    check 'docker exec --user' is 1000 docker_ exec --user 1000 web id -u
    check 'docker update' docker_ update --memory 128m --memory-swap 256m --cpus 0.5 web
    check 'docker pause' docker_ pause web
    check 'docker inspect says paused' docker_state_is web paused
    check 'docker unpause' docker_ unpause web
    check 'docker top' docker_ top web
    check 'docker stats' docker_ stats --no-stream web
    check 'docker stop' docker_ stop --time 10 web
    check 'docker inspect shows the exit status after stop' is 3 docker_ inspect --format '{{.State.ExitCode}}' web
    check 'docker start again' docker_ start web
    check 'docker kill' docker_ kill web
    check 'docker rm' docker_ rm web
    check 'docker run with many options' is '5 100' docker_run --rm --read-only --tmpfs /tmp \
        -v "$work/tree:/mnt:ro" --cap-drop all --security-opt no-new-privileges --pids-limit 10 \
        --ulimit nofile=100 --user 5:6 engines:1 sh -c 'touch /tmp/a && echo $(id -u) $(ulimit -n)'
}

# From here on, podman is that of an ordinary user with 65,536 further ids, whom only the processes of the namespace
# "$rootless_pid" know. State below /tmp would be refused: other users could replace the directories of root in it.
readonly user=64210
start_rootless() {
    rootless=$(mktemp -d /run/engines-test.XXXXXX)
    chmod 755 "$rootless"
    mkdir -m 700 "$rootless"/{home,run}
    chown "$user:$user" "$rootless"/{home,run}
    cp "$runtime" "$rootless/zncrun"
    { cat /etc/passwd && printf 'engines:x:%s:%s::%s/home:/bin/sh\n' "$user" "$user" "$rootless"; } >"$rootless/passwd"
    { cat /etc/group && printf 'engines:x:%s:\n' "$user"; } >"$rootless/group"
    printf 'engines:6430000:65536\n' >"$rootless/ranges"
    { example podman.conf "$rootless" && printf '[engine]\nruntime_supports_json = ["zncrun"]\nruntime_supports_nocgroup = ["zncrun"]\n'; } \
        >"$rootless/containers.conf"
    unshare --mount --propagation private bash -c 'mount --bind "$1/passwd" /etc/passwd &&
        mount --bind "$1/group" /etc/group && mount --bind "$1/ranges" /etc/subuid && mount --bind "$1/ranges" /etc/subgid && touch "$1/ready" && exec sleep infinity' \
        - "$rootless" &
    rootless_pid=$!
    soon test -e "$rootless/ready" || return 1
    engine=(nsenter --target "$rootless_pid" --mount setpriv --reuid "$user" --regid "$user" --init-groups
        env -C "$rootless/home" HOME="$rootless/home" XDG_RUNTIME_DIR="$rootless/run" CONTAINERS_CONF="$rootless/containers.conf"
        podman --root "$rootless/home/root" --runroot "$rootless/run/podman" --tmpdir "$rootless/run/tmp"
        --storage-driver vfs --cgroup-manager cgroupfs --events-backend file --runtime zncrun)
    limits=()
    make_image
}
nobody_left() { ! pgrep -U "$user" >/dev/null; }
no_state_left() { [[ -z $(ls -A "$rootless/run/zncrun") ]]; }
# The second command ends the process that keeps the user namespace of podman.
remove_rootless() { podman_ rm --all --force --time 0 && podman_ system migrate; }
ends_rootless() { remove_rootless && soon nobody_left; }
# podman loses what a program prints that ends at once, with other runtimes, too.
has_terminal() {
    local command
    printf -v command '%q ' timeout --foreground 90 "${engine[@]}" run --rm -it --network none localhost/engines:1 \
        sh -c 'tty; sleep 1'
    script --quiet --return --command "$command" /dev/null | grep -q /dev/pts/0
}

# The names of the ways out that the probe finds in a container of podman with its default profile. crun refuses a
# machine with both versions of control groups, so that the one without controllers is unmounted.
ways_out() {
    timeout --foreground 90 unshare --mount --propagation private bash -c \
        'umount --lazy /sys/fs/cgroup/unified 2>/dev/null; exec "$@"' - \
        "${root_engine[@]}" --runtime "$1" run --rm --network none "${limits[@]}" localhost/engines:1 \
        sh -c '/bin/probe; exit' </dev/null >"$work/probe" 2>/dev/null
    [[ $(grep -c '^ok ' "$work/probe") -gt 100 ]] && sed -n 's/^ESCAPED \([^:]*\):.*/\1/p' "$work/probe" | sort
}
no_way_out_but_of() {
    ways_out "$runtime" >"$work/ours" && ways_out "$1" >"$work/theirs" && comm -23 "$work/ours" "$work/theirs" >"$work/more" &&
        cat "$work/more" && [[ ! -s $work/more ]]
}

podman_rootless() {
    check 'an ordinary user has the image' start_rootless
    check 'rootless: podman run prints what the program prints' is hello run --rm localhost/engines:1 echo hello
    check 'rootless: podman run passes the exit status' ends 7 run --rm localhost/engines:1 sh -c 'exit 7'
    check 'rootless: podman run ends with 127 for a missing program' ends 127 run --rm localhost/engines:1 nosuch
    check 'rootless: the program is root of the user namespace of podman' is "0 $user 1" \
        run --rm localhost/engines:1 sh -c 'read -r in out count </proc/self/uid_map; echo $in $out $count'
    check 'rootless: standard input reaches the program' is given feed_given
    check 'rootless: podman run -d' run -d --name web localhost/engines:1 \
        sh -c 'trap "exit 3" TERM; echo up; while true; do sleep 0.1; done'
    check 'rootless: the program runs' soon logs_have web up
    check 'rootless: podman exec' is '/' podman_ exec web sh -c 'cd / && echo $PWD'
    check 'rootless: podman exec passes the exit status' ends 9 podman_ exec web sh -c 'exit 9'
    check 'rootless: podman exec ends with 127 for a missing program' ends 127 podman_ exec web nosuch
    check 'rootless: podman exec --user' is 'uid=1234(user) gid=1234(user)' podman_ exec --user user web id
    check 'rootless: podman exec -t' is yes podman_ exec -t web sh -c 'test -t 0 && echo yes'
    check 'rootless: podman top' soon top_shows web sleep
    check 'rootless: podman stop lets the program end' podman_ stop --time 10 web
    check 'rootless: podman inspect shows the exit status after stop' is 3 podman_ inspect --format '{{.State.ExitCode}}' web
    check 'rootless: podman start again' podman_ start web
    check 'rootless: podman kill' podman_ kill web
    check 'rootless: podman rm' podman_ rm --force --time 0 web
    check 'rootless: nothing is left of the container' ends 1 podman_ container exists web
    check 'rootless: -it' has_terminal
    check 'rootless: --cgroups=disabled' is hello run --rm --cgroups=disabled localhost/engines:1 echo hello
    check 'rootless: --userns keep-id' is "$user" run --rm --userns keep-id localhost/engines:1 id -u
    check 'rootless: --uidmap' is '0 1 1000' run --rm --uidmap 0:1:1000 --gidmap 0:1:1000 localhost/engines:1 \
        sh -c 'read -r in out count </proc/self/uid_map; echo $in $out $count'
    check 'rootless: --user' is 1234 run --rm --user user localhost/engines:1 id -u
    check 'rootless: --network host' is "$(readlink /proc/self/ns/net)" \
        podman_ run --rm --network host localhost/engines:1 readlink /proc/self/ns/net
    check 'rootless: --pid host' ends 1 run --rm --pid host localhost/engines:1 sh -c 'test $$ = 1'
    check 'rootless: --device' run --rm --device /dev/zero:/dev/other localhost/engines:1 test -c /dev/other
    check 'rootless: --read-only' ends 1 run --rm --read-only localhost/engines:1 touch /etc/new
    check 'rootless: --privileged' run --rm --privileged localhost/engines:1 mount -t tmpfs none /tmp
    check 'rootless: --network of another container' shares_network
    check 'rootless: --pid of another container' run --rm --pid container:net localhost/engines:1 \
        sh -c 'grep -q sleep /proc/1/cmdline'
    if command -v slirp4netns >/dev/null && setpriv --reuid "$user" --clear-groups test -w /dev/net/tun; then
        check 'rootless: the default network' podman_ run --rm localhost/engines:1 test -d /sys/class/net/tap0
    else
        printf 'skipped: rootless network: slirp4netns is not installed, or /dev/net/tun is for root alone\n'
    fi
    check 'rootless: all processes end' ends_rootless
    check 'rootless: no state is left' no_state_left
}

make_image >"$work/out" 2>&1 || {
    cat "$work/out"
    printf 'not ok - podman import\n'
    exit 1
}
podman_lifecycle
podman_settings
podman_limits
for peer in runc crun; do
    if [[ ! -x $probe ]] || ! command -v $peer >/dev/null; then
        printf 'skipped: the probe with %s: one of them is not there\n' "$peer"
    else
        check "the probe finds no way out that $peer closes" no_way_out_but_of $peer
    fi
done
if command -v containerd >/dev/null && command -v ctr >/dev/null; then
    containerd_lifecycle
else
    printf 'skipped: containerd is not installed\n'
fi
if command -v dockerd >/dev/null; then
    docker_lifecycle
else
    printf 'skipped: docker is not installed\n'
fi

if command -v newuidmap >/dev/null; then
    podman_rootless
else
    printf 'skipped: rootless podman: newuidmap is not installed\n'
fi

printf '%s passed, %s failed\n' "$good" "$bad"
[[ $bad -eq 0 ]]
