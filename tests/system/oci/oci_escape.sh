#!/usr/bin/env bash
# What a container could use to reach the host through zncrun.
# shellcheck source=oci_lib.sh disable=SC2016
. "$(dirname "$0")/oci_lib.sh"

make_bundle web sh -c 'readlink /proc/self/exe; ls /proc/self/fd | wc -l; while :; do sleep 0.05; done'
exec 9<"$ZNCRUN" 8<"$work"
"$ZNCRUN" --root "$work/state" create --bundle "$work/web" --pid-file "$work/pid" "$me-web" \
    >"$work/log" 2>&1 </dev/null
exec 9<&- 8<&-
pid=$(<"$work/pid")

# Before the start: the process that waits.
check 'the waiting process runs from a file in memory' \
    grep -q '^/memfd:zn-helper' <<<"$(readlink "/proc/$pid/exe")"
check 'the file in memory is sealed' python3 - "$pid" <<'P'
import fcntl, os, sys
file = os.open(f"/proc/{sys.argv[1]}/exe", os.O_RDONLY)
assert fcntl.fcntl(file, 1034) & 0xf == 0xf, "F_GET_SEALS"
try:
    os.open(f"/proc/{sys.argv[1]}/exe", os.O_WRONLY)
    sys.exit(1)
except OSError:
    pass
P
check 'it is not dumpable: its files in /proc are those of root only' \
    test "$(stat -c %u "/proc/$pid/environ")" = 0
check 'the waiting process has the root of the container' test -x "/proc/$pid/root/bin/busybox"
check 'the mounts of the waiting process show nothing of the host' not grep -q "$work/state" "/proc/$pid/mountinfo"
leaked() { # descriptors that are files or directories of the host
    local fd
    for fd in "/proc/$1/fd"/*; do
        [[ $(readlink "$fd") != /* || ${fd##*/} -le 2 || $(readlink "$fd") == /memfd:* ]] || readlink "$fd"
    done
}
check 'the waiting process has no descriptors of the host' test -z "$(leaked "$pid")"

# The socket for the start.
check 'the state directory is for root only' test "$(stat -c %a "$work/state/$me-web")" = 700
check 'a connection without a request does not start the container' python3 - "$work/state/$me-web/start" <<'P'
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.connect(sys.argv[1])
s.close()
P
check 'the container still waits after such a connection' is_state "$me-web" created
run zncrun start "$me-web"
check 'the container starts' eventually grep -q busybox "$work/log"
check 'the program has the standard streams only' eventually grep -qx 4 "$work/log" # and that of ls
check 'nothing of the helper is mapped any more' not grep -q zn-helper "/proc/$pid/maps"
check 'the socket is gone' not test -e "$work/state/$me-web/start"

# A program joins: nobody inside can look at it before it runs.
check 'the program of exec has no descriptors of the host' \
    test "$(zncrun exec "$me-web" sh -c 'ls /proc/self/fd | wc -l')" = 4
run zncrun exec --cwd /proc/self/fd/5 "$me-web" pwd
exec_refused 'a descriptor is no working directory' 'too many levels'
ln -s /proc/self/exe "$work/web/rootfs/bin/self"
run zncrun exec "$me-web" /bin/self
check 'a program that leads to its own file runs nothing of the host' test "$status" != 0
printf '#!/proc/self/exe\n' >"$work/web/rootfs/bin/script"
chmod 755 "$work/web/rootfs/bin/script"
run zncrun exec "$me-web" /bin/script
check '/proc/self/exe as an interpreter runs nothing of the host' test "$status" != 0
run zncrun delete --force "$me-web"

# A client that ends at once: the program runs, although nobody hears of it.
make_bundle host sh -c 'echo up; exec sleep 1000'
change host '.linux.namespaces = [{type: "mount"}] | del(.hostname)'
"$ZNCRUN" --root "$work/state" create --bundle "$work/host" "$me-host" >"$work/log" 2>&1 </dev/null
python3 - "$work/state/$me-host/start" <<'P'
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.connect(sys.argv[1])
s.shutdown(socket.SHUT_RD) # as if it had ended when the first report is written
s.send(b"1")
s.close()
P
check 'a client that ends at once starts the program' eventually grep -q up "$work/log"
check 'the program runs after its client has ended' is_state "$me-host" running
run zncrun delete --force "$me-host"

# Masks cannot be led astray by the image.
rm -rf "$work/web/rootfs/sys"
ln -s / "$work/web/rootfs/sys"
run zncrun create --bundle "$work/web" "$me-web"
refused 'a root whose /sys leads to the root' /sys
check 'nothing is left of it' not group_exists "$me-web"
finish
