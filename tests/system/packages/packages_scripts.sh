#!/usr/bin/env bash
# packages_scripts.sh - runs the maintainer scripts of zncontainer-tools: what an upgrade does to the daemon and to the
# storage base of version 1.0, what a removal ends, and what a purge removes or leaves. systemd is replaced by a
# script; daemon and containers are real. Needs a sandbox. See cli_lib.sh.
# shellcheck disable=SC2317 # what is called by way of check
# shellcheck source=tests/system/cli/cli_lib.sh
. "$(dirname "$0")/../cli/cli_lib.sh"
need dpkg
need umoci

scripts=$(cd "$(dirname "$0")/../../../debian" && pwd)
mount -t tmpfs -o mode=755 state /var/lib
chmod 0755 /run
export ZNC_BASE=/var/lib/zncontainer
runtime=/run/zncontainer

# systemctl answers what the test has written; deb-systemd-invoke notes what it is asked for.
mkdir -p "$work/bin" /run/systemd/system
ln -s "$ZNCCTL" "$work/bin/zncctl"
cat >"$work/bin/systemctl" <<SH
#!/bin/sh
case "\$*" in
*ActiveState*) cat "$work/state" ;;
*MainPID*) cat "$work/pid" ;;
"cat zncd.service") cat "$work/unit" ;;
*is-active*) grep -qx active "$work/state" ;;
esac
SH
{
    echo "#!/bin/sh"
    echo "echo \"\$1\" >>'$work/invoked'"
} >"$work/bin/deb-systemd-invoke"
chmod +x "$work/bin/systemctl" "$work/bin/deb-systemd-invoke"

# script NAME ARGUMENT...: runs a maintainer script as dpkg does.
script() {
    : >"$work/invoked"
    run env PATH="$work/bin:$PATH" sh "$scripts/zncontainer-tools.$1" "${@:2}"
}
# unit STATE [PID]: what systemd says about the daemon.
unit() {
    echo "$1" >"$work/state"
    echo "${2-0}" >"$work/pid"
}
invoked() { [[ $status -eq 0 && $(<"$work/invoked") == "$1" ]]; }
says() { [[ $err == *"$1"* ]]; }

# ---- installation and upgrade

printf '# --keep\nExecStart=/usr/sbin/zncd\n' >"$work/unit"
unit inactive
script postinst configure
check 'an installation starts the daemon' invoked start
script postinst configure 1.0.0-1
check 'an upgrade of 1.0, which stopped the daemon, starts it' invoked start
script postinst configure 1.1.0-1
check 'a stopped daemon stays stopped' invoked ''
script postinst abort-upgrade 1.2.0-1
check 'a failed upgrade starts nothing' invoked ''

start_daemon
unit active "$daemon"
script prerm upgrade 1.2.0-1
check 'an upgrade stops nothing' invoked ''
script postinst configure 1.1.0-1
check 'a daemon without containers is restarted' invoked restart
make_bundle "$work/web" /bin/sleep "$mark"
zncctl create web "$work/web" >"$work/created"
script postinst configure 1.1.0-1
check 'a daemon with a container is not restarted' invoked ''
check 'it says so' says 'was not restarted'
zncctl start web >"$work/started"
script postinst configure 1.1.0-1
check 'a daemon with a running container is not restarted' invoked ''
check 'the container still runs' program_lives
sh -c 'while sleep 1; do :; done' zncd --keep &
keeps=$!
unit active "$keeps"
script postinst configure 1.1.0-1
check 'a daemon whose containers the next one would end is not restarted' invoked ''
printf 'ExecStart=/usr/sbin/zncd --keep\n' >"$work/unit"
script postinst configure 1.1.0-1
check 'a daemon that keeps its containers is restarted' invoked restart
kill "$keeps"
unit failed
script postinst configure 1.1.0-1
check 'a daemon that failed is started by an upgrade' invoked restart

# ---- removal

unit active "$daemon"
script prerm remove
check 'a removal stops the daemon' invoked stop
check 'it ends the containers' eventually not program_lives
no_containers() { [[ -z $(zncctl list --quiet) ]]; }
check 'it deletes them' no_containers
stop_daemon
unit inactive
script prerm remove
check 'a removal without a daemon works' invoked stop
mkdir -p "$runtime/kept"
script prerm remove
check 'if it left containers, the daemon is started to remove what they left' invoked $'start\nstop'
unit active "$$"
script prerm remove
check 'a removal without a daemon that answers works' invoked stop
rm -r "${runtime:?}/kept"
unit active "$$"
script postinst configure 1.1.0-1
check 'a daemon that cannot be asked is not restarted' invoked ''

# ---- the storage base of version 1.0

rm -rf /var/lib/zncontainer
disk=$(mktemp -d "$(dirname "$ZNCD")/old-base.XXXXXX")
unit inactive
is_link() { [[ $(readlink /var/lib/zncontainer) == /ram0/znc ]]; }
mkdir -p /ram0/znc/layers
script postinst configure 1.0.0-1
check 'a storage base in memory is not used on' test ! -e /var/lib/zncontainer -a ! -L /var/lib/zncontainer
mount --bind "$disk" /ram0
mkdir -m 0700 /ram0/znc
script postinst configure 1.0.0-1
check 'an empty storage base is not used on' test ! -L /var/lib/zncontainer
make_image "$work/image"
ZNC_BASE=/ram0/znc run zncctl unpack --os linux "$work/image" "$work/bundle"
check 'an image is unpacked to the old place' test "$status" -eq 0 -a -d /ram0/znc/layers
mkdir /var/lib/zncontainer
script postinst configure 1.0.0-1
check 'a storage base at the new place is left alone' not is_link
rmdir /var/lib/zncontainer
script postinst configure 1.0.0-1
check 'a storage base of 1.0 is used on' is_link
check 'it says where' says /ram0/znc
bundle_runs() {
    start_daemon
    zncctl create --bundle "$work/bundle" old && zncctl start --attach old >"$work/greeting" &&
        zncctl delete old && zncctl storage gc && [[ $(<"$work/greeting") == 'from the second layer' ]]
    local result=$?
    stop_daemon
    return $((result + status))
}
check 'the bundle runs by way of the link' bundle_runs
script postrm remove
check 'removing the package leaves it' is_link
script postrm purge
check 'a purge removes the link' test ! -L /var/lib/zncontainer
check 'a purge leaves the storage base of 1.0' test -d /ram0/znc/layers
check 'it says that it stays' says '/ram0/znc stays'

# What docs/upgrading.md says about moving it.
umount /overlay/*
mv /ram0/znc /var/lib/zncontainer
ln -s /var/lib/zncontainer /ram0/znc
check 'the bundle runs after the storage base was moved' bundle_runs
umount /ram0
rm -rf "$disk" /ram0 /var/lib/zncontainer

# ---- what a daemon with --keep leaves

queues_made='' # /dev is that of the host: what is created there would stay
if mkdir /dev/mqueue 2>/dev/null; then queues_made=1; fi
mkdir -p "$runtime"
mount -t mqueue queues /dev/mqueue
: >"$runtime/zncd.lock"
: >/dev/mqueue/znc
flock --no-fork "$runtime/zncd.lock" sleep 1000 &
holder=$!
eventually not flock --nonblock "$runtime/zncd.lock" true
script postrm remove
check 'the queue of a daemon that runs stays' test "$status" -eq 0 -a -e /dev/mqueue/znc
check 'it says so' says '/dev/mqueue/znc stays'
kill "$holder"
wait "$holder" 2>/dev/null
eventually flock --nonblock "$runtime/zncd.lock" true
script postrm upgrade 1.2.0-1
check 'an upgrade leaves the queue' test -e /dev/mqueue/znc
script postrm remove
check 'a removal removes the queue' test "$status" -eq 0 -a ! -e /dev/mqueue/znc
umount /dev/mqueue
[[ -z $queues_made ]] || rmdir /dev/mqueue

# ---- purge

store() {
    mkdir -p /var/lib/zncontainer/layers/one "$runtime"/{containers,kept} "$runtime/zncrun/web"
    chmod 0700 /var/lib/zncontainer
    : >"$runtime/zncd.lock"
    : >"$runtime/kept/1"
}
stored() { [[ -d /var/lib/zncontainer/layers/one ]]; }
store
script postrm remove
check 'removing the package leaves what is stored' stored
for change in 'chmod 0777 /var/lib' 'chmod 1777 /var/lib' 'chmod 0770 /var/lib/zncontainer' \
    'chown 1000 /var/lib/zncontainer' 'mount -t tmpfs below /var/lib/zncontainer/layers'; do
    store
    $change
    script postrm purge
    check "after $change a purge leaves it" test "$status" -eq 0 -a -d /var/lib/zncontainer/layers
    check "after $change it says so" says '/var/lib/zncontainer stays'
    [[ $change != mount* ]] || umount /var/lib/zncontainer/layers
    chmod 0755 /var/lib
    chown 0 /var/lib/zncontainer
    rm -rf /var/lib/zncontainer
done
mkdir "$work/elsewhere"
: >"$work/elsewhere/file"
ln -s "$work/elsewhere" /var/lib/zncontainer
script postrm purge
check 'a purge does not follow a link' test -e "$work/elsewhere/file" -a -L /var/lib/zncontainer
rm /var/lib/zncontainer
store
ln -s "$work/elsewhere" /var/lib/zncontainer/layers/link
script postrm purge
check 'a purge removes what is stored' test "$status" -eq 0 -a ! -e /var/lib/zncontainer
check 'it removes no target of a link in it' test -e "$work/elsewhere/file"
check 'it removes what the daemon left in /run' test "$(ls "$runtime")" = zncrun
check 'the state of zncrun stays' test -d "$runtime/zncrun/web"

# A device of an image is unmounted first; if it is in use, what it shows stays.
device=/overlay/$(printf '%064d' 0)
lower=/var/lib/zncontainer/layers/one
show_device() {
    store
    mkdir -p "$device" "$lower" /var/lib/zncontainer/layers/two
    : >"$device/.zn-stack"
    : >"$lower/file"
    mount -t overlay device -o "lowerdir=$lower:/var/lib/zncontainer/layers/two" "$device"
}
show_device
mkdir /overlay/other
: >/overlay/other/file
(cd "$device" && exec sleep 1000) &
user=$!
is_there() { [[ $(readlink "/proc/$user/cwd") == "$device" ]]; }
eventually is_there
script postrm purge
check 'a device in use keeps what it shows' test "$status" -eq 0 -a -e "$lower/file"
check 'it says that the device stays' says "$device stays"
kill "$user"
wait "$user" 2>/dev/null
script postrm purge
check 'a device is unmounted and its directory removed' test "$status" -eq 0 -a ! -e "$device"
check 'then what it showed is removed' test ! -e /var/lib/zncontainer
check 'what else is in /overlay stays' test -e /overlay/other/file

umount /var/lib
finish
