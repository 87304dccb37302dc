# oci_lib.sh - sourced by the tests of zncrun: bundles, running the program, what it leaves behind.
# shellcheck shell=bash disable=SC2034
set -u
. "$(dirname "$0")/../../support/checks.sh"

for needed in busybox jq python3; do
    command -v "$needed" >/dev/null || {
        printf 'skipped: %s is not installed\n' "$needed"
        exit 77
    }
done

work=$(mktemp -d /tmp/oci.XXXXXX)
mark=$((900000 + $$ % 90000)) # how long programs sleep that are looked for by this number
me=t$$ # container ids begin with this: control groups are those of the whole machine
export XDG_RUNTIME_DIR=$work

zncrun() { timeout -k 5 60 "$ZNCRUN" --root "$work/state" "$@"; }

# run COMMAND...: output in $out, standard error in $err, exit status in $status.
run() {
    status=0
    "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
    out=$(<"$work/out")
    err=$(<"$work/err")
}
explain_failure() {
    printf '  status %s\n' "${status-}"
    sed 's/^/  out: /' "$work/out"
    sed 's/^/  err: /' "$work/err"
}
# expect NAME STATUS OUT: what the last run gave.
expect() { check "$1" test "$status/$out" = "$2/$3"; }
# refused NAME WORDS: that it failed with one line that contains the words.
refused() {
    check "$1" test "$status" = 1
    check "$1: the reason" grep -qiF -- "$2" "$work/err"
}

# exec_refused NAME WORDS: that exec failed before the program was started.
exec_refused() {
    check "$1" test "$status" = 255
    check "$1: the reason" grep -qiF -- "$2" "$work/err"
}

make_root() {
    local root=$1 applet
    mkdir -p "$root"/{bin,etc,proc,dev,sys,root,tmp,mnt,data}
    cp "$(command -v busybox)" "$root/bin/busybox"
    for applet in awk cat chmod echo env false grep head hostname id kill ln ls mkdir mknod mount od \
        ps pwd readlink rm sh sleep sort stat stty test touch true tty umount wc; do
        ln -sf busybox "$root/bin/$applet"
    done
    printf 'root:x:0:0::/root:/bin/sh\nuser:x:1000:1000::/home/user:/bin/sh\n' >"$root/etc/passwd"
}

# make_bundle NAME PROGRAM [ARG]...: a bundle like those of engines. change NAME FILTER: edits it.
make_bundle() {
    local bundle=$work/$1
    shift
    make_root "$bundle/rootfs"
    jq -n '{ociVersion: "1.0.2", root: {path: "rootfs"}, hostname: "box",
        process: {args: $ARGS.positional, cwd: "/", env: ["PATH=/bin"], user: {uid: 0, gid: 0}},
        mounts: [
            {destination: "/proc", type: "proc", source: "proc"},
            {destination: "/dev", type: "tmpfs", source: "tmpfs",
             options: ["nosuid", "strictatime", "mode=755", "size=65536k"]},
            {destination: "/dev/pts", type: "devpts", source: "devpts",
             options: ["nosuid", "noexec", "newinstance", "ptmxmode=0666", "mode=0620"]},
            {destination: "/sys", type: "sysfs", source: "sysfs",
             options: ["nosuid", "noexec", "nodev", "ro"]}],
        linux: {namespaces: ["pid", "mount", "ipc", "uts", "network"] | map({type: .}),
                maskedPaths: ["/proc/kcore", "/proc/keys", "/sys/firmware"],
                readonlyPaths: ["/proc/sys", "/proc/bus"]}}' --args -- "$@" >"$bundle/config.json"
}
change() {
    jq "$2" "$work/$1/config.json" >"$work/changed.json" && mv "$work/changed.json" "$work/$1/config.json"
}
program() { # NAME PROGRAM [ARG]...: another program in the bundle
    local name=$1
    shift
    jq '.process.args = $ARGS.positional' "$work/$name/config.json" --args -- "$@" >"$work/changed.json" &&
        mv "$work/changed.json" "$work/$name/config.json"
}

# given FILTER PROGRAM [ARG]...: runs a container from the bundle "web" whose configuration is $plain with this changed.
given() {
    local filter=$1
    shift
    # shellcheck disable=SC2154 # set by the test
    printf '%s' "$plain" >"$work/web/config.json"
    change web "$filter"
    program web "$@"
    run zncrun run --bundle "$work/web" "$me-web"
}

state_of() { zncrun state "$1" 2>/dev/null | jq -r "${2:-.status}"; }
is_state() { [[ $(state_of "$1") == "$2" ]]; }
# The group of a container has a name of its own below each root directory.
group_exists() { compgen -G "/sys/fs/cgroup/*/zncrun/$1@*" >/dev/null || compgen -G "/sys/fs/cgroup/zncrun/$1@*" >/dev/null; }
lives() { [[ -d /proc/$1 && $(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null) != Z ]]; }

finish() {
    check 'no state directory is left' test -z "$(ls -A "$work/state" 2>/dev/null)"
    check 'no control group is left' not group_exists "$me*"
    cd /
    rm -rf "$work"
    finish_checks
    exit
}

# with_terminal SOCKET COMMAND...: what a program writes to the terminal whose other end zncrun sends to the socket.
with_terminal() {
    cat >"$work/terminal.py" <<'P'
import os, socket, subprocess, sys
path = sys.argv[1]
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(1)
program = subprocess.Popen(sys.argv[2:], stdin=subprocess.DEVNULL)
server.settimeout(30)
client, _ = server.accept()
_, fds, _, _ = socket.recv_fds(client, 100, 1)
said = b""
while True:
    try:
        part = os.read(fds[0], 1000)
    except OSError:
        break
    if not part:
        break
    said += part
sys.stdout.write(said.decode().replace("\r", ""))
sys.exit(program.wait())
P
    timeout 60 python3 "$work/terminal.py" "$@"
}

if ! compgen -G '/sys/fs/cgroup/*' >/dev/null; then
    printf 'skipped: this machine has no control groups\n'
    exit 77
fi
