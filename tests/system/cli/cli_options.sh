#!/usr/bin/env bash
# Tests of the options of zncctl run and create that change a container: command, environment,
# mounts, user, rights and limits.
# shellcheck source=cli_lib.sh disable=SC2317,SC2016
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci
export ZNCCTL_NETWORK=none
start_daemon

make_layout() {
    umoci init --layout "$work/layout"
    umoci new --image "$work/layout:latest"
    mkdir -p "$work"/tree/{bin,proc,dev,sys,tmp,etc,srv/data,home/app}
    cp "$(command -v busybox)" "$work/tree/bin/busybox"
    for applet in sh sleep cat echo env id pwd hostname ls touch grep mount stat head rm; do
        ln -sf busybox "$work/tree/bin/$applet"
    done
    printf 'root:x:0:0::/root:/bin/sh\napp:x:1234:500::/home/app:/bin/sh\n' >"$work/tree/etc/passwd"
    printf 'root:x:0:\napps:x:500:\nextra:x:77:app\n' >"$work/tree/etc/group"
    add_layer "$work/layout" "$work/tree"
    umoci config --image "$work/layout:latest" --os linux --architecture "$architecture" \
        --config.workingdir / --config.env PATH=/bin --config.env MODE=image \
        --config.entrypoint /bin/echo --config.entrypoint entry --config.cmd of-the-image
}
make_layout >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"
image=$work/layout
zrun() { run zncctl run --rm --os linux --progress none "$@"; }
# sh_in OPTION... COMMAND: runs a shell command in a container of the image.
sh_in() { zrun --entrypoint /bin/sh "${@:1:$#-1}" "$image" -c "${*: -1}"; }
no_containers() { [[ -z $(zncctl list -q) ]]; }
says() { grep -qF -- "$1" "$work/err"; }
own_bundles() { find "$ZNC_BASE/bundles" -name 'of-*' 2>/dev/null; }

# --- command and entry point
zrun "$image"
expect 'run without a command runs the command of the image' 0 'entry of-the-image' ''
zrun "$image" other -x --rm -- words
expect 'the words after the image replace its command, whatever they look like' 0 \
    'entry other -x --rm -- words' ''
zrun --entrypoint /bin/echo "$image"
expect '--entrypoint runs without the command of the image' 0 '' ''
zrun --entrypoint '["/bin/echo", "a  b"]' "$image" c
expect '--entrypoint takes a JSON array' 0 'a  b c' ''
zrun --entrypoint '' "$image" /bin/echo plain
expect 'an empty --entrypoint leaves the command alone' 0 plain ''
zrun --entrypoint '' "$image"
check 'and without a command that of the image is run' test "$status" = 127
zrun --entrypoint '["/bin/echo", 5]' "$image"
fails_with 'a word that is no string is refused' 64 '--entrypoint is a program or a JSON array of strings'
zrun --entrypoint /bin/sh "$image" -c "$(printf 'echo \xff')"
check 'a word that is not UTF-8 is refused' test "$status/$out" = 64/
check 'nothing is left of it' no_containers
make_bundle "$work/bundle" /bin/sh -c 'echo bundle'
cp "$work/bundle/config.json" "$work/before.json"
run zncctl run --rm -b "$work/bundle" /bin/echo command
expect 'with --bundle all words are the command' 0 command ''
run zncctl run --rm -b "$work/bundle" --entrypoint /bin/echo x
expect 'with --bundle --entrypoint precedes the command' 0 x ''
run zncctl run --rm -b "$work/bundle" -e A=1 -w /tmp
expect 'a bundle keeps its command with other options' 0 bundle ''
check 'the bundle does not change' cmp "$work/bundle/config.json" "$work/before.json"
check 'no bundle of a single container is left' test -z "$(own_bundles)"

# --- what stays, what is deleted
run zncctl run --os linux --name kept "$image"
expect 'a container whose program has ended' 0 'entry of-the-image' ''
run zncctl list -q
expect 'a container is kept without --rm' 0 kept ''
run zncctl run --rm --os linux --name kept "$image"
check 'the name of a kept container is taken' test "$status/$(error_line)" = '125/kept: Container already exists'
check 'the kept container is not changed' test "$(zncctl list -q)" = kept
zncctl delete -q kept
run zncctl run -d --rm --os linux --name brief "$image"
expect 'a detached container with --rm is started' 0 brief ''
check 'a container with --rm is deleted when it has ended' eventually no_containers
check 'its bundle is deleted, too' eventually test -z "$(own_bundles)"
run zncctl run -d --rm --os linux --entrypoint /bin/sh --name waited "$image" -c 'sleep 0.3; exit 6'
run zncctl wait waited
expect 'wait prints the exit code of a container that is deleted at its end' 0 6 ''
check 'the container that was waited for is deleted' eventually no_containers

# --- standard input, terminals
printf 'line\n' >"$work/input"
zncctl run --rm --os linux --entrypoint /bin/cat "$image" <"$work/input" >"$work/out"
check 'without -i standard input is not passed on' test ! -s "$work/out"
zncctl run --rm -i --os linux --entrypoint /bin/cat "$image" <"$work/input" >"$work/out"
check 'with -i standard input is passed on' cmp "$work/out" "$work/input"
sh_in -t 'test -t 1 && echo "terminal $TERM"'
expect '-t needs no terminal of the caller' 0 $'terminal xterm\r' ''
sh_in -it 'true'
fails_with '-it does' 125 '--tty with --interactive needs a terminal on standard input'
run zncctl run -dit --os linux --entrypoint /bin/sh --name shell "$image"
expect '-dit starts a shell' 0 shell ''
run zncctl exec shell echo inside
expect 'the shell runs for exec' 0 inside ''
zncctl delete -qf shell
run zncctl run -di --os linux --entrypoint /bin/cat --name reads "$image"
run zncctl list -q --status running
expect 'with -di standard input stays open' 0 reads ''
zncctl delete -qf reads
run zncctl run -dt --os linux --entrypoint /bin/sh --name tty "$image" -c 'test -t 0 && echo on a terminal'
zncctl wait tty >/dev/null
run zncctl logs tty
expect 'the output of a detached terminal is logged' 0 $'on a terminal\r' ''
zncctl delete -q tty

# --- environment
sh_in -e MODE=mine -e 'NEW=a b=c' -e EMPTY= 'echo "$MODE,$NEW,${EMPTY-unset},$HOME"; env | grep -c MODE'
expect '-e replaces variables of the image by name' 0 $'mine,a b=c,,/root\n1' ''
sh_in --name named 'echo $HOSTNAME; hostname'
expect 'HOSTNAME is the host name' 0 $'named\nnamed' ''
sh_in -e HOSTNAME=other 'echo $HOSTNAME'
expect 'a given HOSTNAME is kept' 0 other ''
TAKEN=over zrun -e TAKEN -e NOT_SET --entrypoint /bin/sh "$image" -c 'echo $TAKEN; env | grep NOT_SET'
expect '-e NAME takes the value of the caller, or nothing' 1 over ''
sh_in -e =x true
fails_with 'a variable without a name is refused' 64 "'=x' does not name a variable"
printf '# comment\n\n  FILE=from file\r\nMODE=file\nTAKEN\n' >"$work/env"
TAKEN=over zrun --env-file "$work/env" -e MODE=option --entrypoint /bin/sh "$image" -c \
    'echo "$FILE,$MODE,$TAKEN"'
expect '--env-file is read line by line, and -e comes later' 0 'from file,option,over' ''
mkfifo "$work/pipe"
sh_in --env-file "$work/pipe" true
check 'a FIFO is no environment file, and nothing waits for it' test "$status/$out" = 125/
truncate -s 2M "$work/huge"
sh_in --env-file "$work/huge" true
fails_with 'a huge one is refused' 125 'it is larger than 1 MiB'
printf 'A B=1\n' >"$work/env"
sh_in --env-file "$work/env" true
fails_with 'a name with a blank is refused' 125 'line 1 is not NAME=VALUE'
printf 'OK=1\nA\0B=1\n' >"$work/env"
sh_in --env-file "$work/env" true
fails_with 'and a NUL' 125 'line 2 is not NAME=VALUE'
sh_in --env-file "$work/no-file" true
fails_with 'a file that is missing is an error' 125 'No such file or directory'

# --- mounts
mkdir -p "$work/host/inner"
echo of-the-host >"$work/host/file"
sh_in -v "$work/host:/srv/data" 'cat /srv/data/file; echo written >/srv/data/new'
expect '-v mounts a directory of the host' 0 of-the-host ''
check 'a mounted directory can be written' test "$(<"$work/host/new")" = written
sh_in -v "$work/host:/srv/data:ro" 'echo x 2>/dev/null >/srv/data/no || echo read-only'
expect '-v ...:ro cannot' 0 read-only ''
check 'nothing is written' test ! -e "$work/host/no"
mount -t tmpfs tmpfs "$work/host/inner"
sh_in -v "$work/host:/srv/data:ro" 'echo x 2>/dev/null >/srv/data/inner/no || echo read-only'
expect 'mounts below the source are read-only, too' 0 read-only ''
umount "$work/host/inner"
sh_in -v "$work/host/file:/srv/one" 'cat /srv/one'
expect '-v mounts a file' 0 of-the-host ''
ln -s host "$work/link"
sh_in -v "$work/link:/srv/data" 'cat /srv/data/file'
expect 'a link as a source is resolved on the host' 0 of-the-host ''
ln -s /etc "$work/host/escape"
sh_in -v "$work/host:/srv/data" "cat /srv/data/escape/passwd | head -n 1"
expect 'a link inside leads nowhere but into the container' 0 'root:x:0:0::/root:/bin/sh' ''
cd "$work" || exit 1
sh_in -v ./host:/srv/data 'cat /srv/data/file'
expect 'a relative source is below the working directory' 0 of-the-host ''
cd / || exit 1
sh_in -v "$work/missing:/srv/data" true
check 'a source that is missing is an error' test "$status/$out" = 125/
check 'the message names the missing source' says "$work/missing: No such file or directory"
for volume in /srv volume:/srv/data "$work/host:srv" "$work/host:/" "$work/host:/srv/../etc" \
    "$work/host:/a:rslave" "$work/host:/a:ro:b" ":/a" "$work/host:"; do
    sh_in -v "$volume" true
    check "-v ${volume#"$work"} is a usage error" test "$status/$out" = 64/
done
sh_in -v "$work/host:/srv/data" -v "$work/host:/srv//data/" true
fails_with 'two mounts at one place are refused' 64 "two mounts at '/srv/data'"
sh_in -v "$work/host:/srv/data/inner/x" --tmpfs /srv/data/inner 'cat /srv/data/inner/x/file'
expect 'outer mounts are made before those inside them' 0 of-the-host ''
sh_in --mount "type=bind,source=$work/host,target=/srv/data,readonly" \
    'cat /srv/data/file; touch /srv/data/no 2>/dev/null || echo read-only'
expect '--mount type=bind' 0 $'of-the-host\nread-only' ''
sh_in --mount type=tmpfs,dst=/srv/data,tmpfs-size=1m,tmpfs-mode=711 \
    'stat -c %a /srv/data; grep -c " /srv/data tmpfs .*size=1024k" /proc/mounts'
expect '--mount type=tmpfs' 0 $'711\n1' ''
sh_in --tmpfs /srv/data:size=1m,mode=700,noexec 'grep " /srv/data " /proc/mounts'
check '--tmpfs takes options' grep -Eq 'nosuid,nodev,noexec.*size=1024k,mode=700' "$work/out"
for mount in type=volume,dst=/a source=/x,target=/a type=bind,target=/a type=bind,source=x,target=/a \
    "type=bind,source=$work,target=/a,odd" "type=bind,source=$work,target=/a,ro=maybe" \
    "type=bind,source=$work,target=/a,bind-propagation=shared" "type=bind,source=$work" \
    type=tmpfs,source=x,target=/a "type=bind,source=$work,target=/a,tmpfs-size=1"; do
    sh_in --mount "$mount" true
    check "--mount ${mount//"$work"/W} is a usage error" test "$status/$out" = 64/
done
for tmpfs in a / /a:odd /a:size= /a:suid /a:dev $'/a:size=1\nx'; do
    sh_in --tmpfs "$tmpfs" true
    check "--tmpfs ${tmpfs%%$'\n'*} is a usage error" test "$status/$out" = 64/
done
sh_in --read-only 'touch /x 2>/dev/null || echo read-only; touch /tmp/a /run/b /var/tmp/c && echo temporary'
expect '--read-only leaves places for temporary files' 0 $'read-only\ntemporary' ''

# --- directory, user, host name
sh_in -w /srv/data pwd
expect '-w sets the working directory' 0 /srv/data ''
sh_in -w srv pwd
fails_with 'which is absolute' 64 '--workdir must be an absolute path'
sh_in -w /nowhere pwd
check 'a missing working directory exits 126' test "$status/$out" = 126/
check 'the message names the missing directory' says 'there is no directory /nowhere'
sh_in -u app 'id -u; id -g; id -G; echo $HOME'
expect '-u looks the user up in the image' 0 $'1234\n500\n500 77\n/home/app' ''
sh_in -u 7:500 'id -u; id -G; echo $HOME'
expect 'numbers need no entry' 0 $'7\n500\n/' ''
sh_in -u app -e HOME=/srv 'echo $HOME'
expect 'HOME can be given' 0 /srv ''
sh_in -u nobody-there true
check 'an unknown user exits 125' test "$status/$out" = 125/
check 'the message names the unknown user' says "the user 'nobody-there'"
sh_in -u '' true
fails_with 'an empty user is refused' 64 '--user must name a user'
sh_in -h box.example 'hostname; cat /etc/hostname; grep box /etc/hosts | head -n 1; echo $HOSTNAME'
expect '-h sets the host name everywhere' 0 \
    $'box.example\nbox.example\n127.0.0.1 localhost box.example\nbox.example' ''
for name in '' 'a b' $'a\nb' "$(printf 'x%.0s' {1..65})"; do
    sh_in --hostname "$name" true
    check "a host name of ${#name} bytes is refused" test "$status/$out" = 64/
done

# --- rights
caps() { sed -n "s/^$1:\t*//p" "$work/out"; }
sh_in 'cat /proc/self/status'
default=$(caps CapBnd)
sh_in --cap-drop chown,CAP_KILL --cap-drop setuid 'cat /proc/self/status'
check '--cap-drop takes capabilities away' test "$(caps CapBnd)/$(caps CapEff)" = \
    "$(printf '%016x/%016x' $((0x$default & ~0xa1)) $((0x$default & ~0xa1)))"
sh_in --cap-drop all --cap-add NET_BIND_SERVICE 'cat /proc/self/status'
check '--cap-drop ALL leaves those that are added' test "$(caps CapEff)" = 0000000000000400
sh_in -u app --cap-add NET_BIND_SERVICE 'cat /proc/self/status'
check 'another user has what is added' test "$(caps CapEff)/$(caps CapAmb)" = \
    0000000000000400/0000000000000400
sh_in -u app 'cat /proc/self/status'
check 'dropped capabilities are not effective' test "$(caps CapEff)" = 0000000000000000
sh_in --cap-add nonsense true
fails_with 'an unknown capability is refused' 64 "--cap-add: unknown capability 'nonsense'"
sh_in --cap-add KILL --cap-drop KILL true
fails_with 'one that is added and dropped, too' 64 'CAP_KILL is both added and dropped'
sh_in --cap-add SYS_ADMIN true
check 'more than the default is refused' test "$status/$out" = 125/
check 'the message names the capability field' says 'process.capabilities.bounding'
check 'the message names --allow-privileged' says '--allow-privileged'
sh_in --security-opt seccomp=unconfined true
check 'seccomp=unconfined is refused by default' test "$status/$out" = 125/
check 'the message names the filter field' says 'linux.seccomp.defaultAction'
sh_in --security-opt no-new-privileges:false true
check 'new privileges are refused by default' test "$status/$out" = 125/
check 'the message names the privileges field' says 'process.noNewPrivileges'
sh_in --security-opt no-new-privileges 'grep NoNewPrivs /proc/self/status'
expect 'no new privileges is the default and can be said' 0 $'NoNewPrivs:\t1' ''
for option in odd seccomp= apparmor=x label=x no-new-privileges=maybe; do
    sh_in --security-opt "$option" true
    check "--security-opt $option is a usage error" test "$status/$out" = 64/
done
sh_in --security-opt "seccomp=$work/none.json" true
fails_with 'a profile that is missing is an error' 125 'No such file or directory'
printf '[]' >"$work/seccomp.json"
sh_in --security-opt "seccomp=$work/seccomp.json" true
fails_with 'and one that is no object' 125 'it is not an object'

# --- limits
run zncctl run -d --os linux --name limited -m 64m --pids-limit 50 --cpus 0.5 --entrypoint /bin/sleep \
    "$image" 1000
expect 'a container with limits is started' 0 limited ''
run zncctl stats --no-stream -f json limited
check 'the limits of the options are in force' python3 -c '
import json, sys
[use] = json.load(open(sys.argv[1]))
assert use["memoryLimit"] == 64 << 20 and use["pidsLimit"] == 50, use' "$work/out"
zncctl delete -qf limited
for words in '-m much' '--cpus 0' '--pids-limit x'; do
    # shellcheck disable=SC2086
    zrun $words "$image"
    check "$words is a usage error" test "$status/$out" = 64/
done

# --- labels, names, files of ids, and what has no effect
run zncctl run -d --os linux --name labelled -l role=web --label empty --label eq=a=b --init \
    --keep --restart no "$image"
run zncctl inspect labelled
check 'labels can be inspected' python3 -c '
import json, sys
[c] = json.load(open(sys.argv[1]))
labels = c["Config"]["Labels"]
assert (labels["role"], labels["empty"], labels["eq"]) == ("web", "", "a=b"), labels' "$work/out"
zncctl delete -qf labelled
for label in '' '=x' $'a=b\nc' $'a\x1b[2J=b' zncontainer.sticky-directories=/ "$(printf 'a=\xff')"; do
    zrun --label "$label" "$image"
    check "the label $(printf %q "$label") is refused" test "$status/$out" = 64/
    check 'the error for the label is one line' test "$(grep -c '^zncctl: error: ' "$work/err")" = 1
done
zrun --name $'a\x1b[2Jb' "$image"
check 'a name with control characters is refused' test "$status/$out" = 64/
for name in a:b 'a b' --rm .a ''; do
    run zncctl run --name="$name" "$image" true
    check "the name '$name' is refused" test "$status/$out" = 64/
done
check 'control characters of the name are not printed' not grep -q "$(printf '\x1b')" "$work/err"
zrun --cidfile "$work/cid" --name filed "$image"
check '--cidfile receives the id' test "$status/$(<"$work/cid")" = 0/filed
zrun --cidfile "$work/cid" --name filed "$image"
fails_with 'a file that exists is refused' 125 'it exists already: another container may be using it'
check 'the cid file stays' test "$(<"$work/cid")" = filed
ln -s "$work/elsewhere" "$work/cid-link"
zrun --cidfile "$work/cid-link" "$image"
check 'a link is not followed' test "$status" = 125 -a ! -e "$work/elsewhere"
zrun --cidfile "$work/cid2" -u nobody-there "$image"
check 'a container that is not created leaves no file' test ! -e "$work/cid2"
zrun --restart always "$image"
fails_with '--restart is refused with the reason' 64 \
    '--restart always is not supported: no process restarts containers; let a service manager start zncctl'

# --- create
run zncctl create --os linux --progress none --name made --rm -e A=made -v "$work/host:/srv/data" \
    --entrypoint /bin/sh "$image" -c 'echo $A; cat /srv/data/file'
expect 'create takes an image and a command' 0 made ''
run zncctl start -a made
expect 'start runs the created container' 0 $'made\nof-the-host' ''
check 'start deletes a container with --rm' no_containers
run zncctl create --name again -b "$work/bundle" /bin/echo 'from create'
expect 'create --name takes a bundle and a command' 0 '' ''
run zncctl start -a again
expect 'start runs the command given to create' 0 'from create' ''
zncctl delete -q again
run zncctl create -dit "$image"
check 'create has no --detach' test "$status/$out" = 64/
run zncctl create "$image" /bin/sh -c x
check 'an image needs a name' test "$status/$out" = 64/
run zncctl create "$image" /bin/sh
check 'the hint says that --name is needed' says "zncctl: hint: to create a container from an image, give its id with --name"
run zncctl create old "$work/bundle"
expect 'create ID BUNDLE stays' 0 '' ''
run zncctl create -e A=1 web -b "$work/bundle"
expect 'options may follow the id of a bundle' 0 '' ''
zncctl delete -q old web

check 'the bundle of the image has not changed' test "$(jq -c .process.args \
    "$ZNC_BASE"/bundles/image-*/config.json)" = '["/bin/echo","entry","of-the-image"]'
check 'no container is left' no_containers
check 'no bundle of a container is left' test -z "$(own_bundles)"
stop_daemon
start_daemon --allow-privileged
sh_in --cap-add sys_admin --security-opt seccomp=unconfined 'cat /proc/self/status'
check 'with --allow-privileged capabilities can be added' test \
    $((0x$(caps CapEff) & 0x200000)) = $((0x200000))
sh_in --cap-add sys_admin --security-opt seccomp=unconfined 'mount -t tmpfs tmpfs /tmp && echo mounted'
expect '--allow-privileged permits to leave out the filter' 0 mounted ''
cat >"$work/seccomp.json" <<'JSON'
{"defaultAction": "SCMP_ACT_ALLOW", "defaultErrno": "ENOSYS",
 "archMap": [{"architecture": "SCMP_ARCH_X86_64", "subArchitectures": ["SCMP_ARCH_X86"]},
             {"architecture": "SCMP_ARCH_AARCH64", "subArchitectures": ["SCMP_ARCH_ARM"]}],
 "syscalls": [
  {"names": ["mkdir", "mkdirat"], "action": "SCMP_ACT_ERRNO", "errnoRet": 28, "errno": "ENOSPC",
   "args": [], "comment": "for tests", "includes": {}, "excludes": {"caps": ["CAP_SYS_ADMIN"]}},
  {"name": "rmdir", "action": "SCMP_ACT_ERRNO", "errnoRet": 30, "includes": {"minKernel": "4.8"}},
  {"name": "unlinkat", "action": "SCMP_ACT_ERRNO", "errnoRet": 30, "includes": {"minKernel": "4.8"}},
  {"name": "chdir", "action": "SCMP_ACT_ERRNO", "args": null, "includes": {"minKernel": "99.1"}},
  {"name": "chdir", "action": "SCMP_ACT_ERRNO", "includes": {"caps": ["CAP_CHOWN", "CAP_SYS_ADMIN"]}},
  {"name": "chdir", "action": "SCMP_ACT_ERRNO", "includes": {"arches": ["mips"]}},
  {"name": "chdir", "action": "SCMP_ACT_ERRNO", "excludes": {"arches": ["amd64", "arm64"]}},
  {"name": "chdir", "action": "SCMP_ACT_ALLOW", "errnoRet": 1}]}
JSON
sh_in --security-opt "seccomp=$work/seccomp.json" \
    'cd /srv && pwd; /bin/busybox mkdir x; /bin/busybox rmdir data; exit 5'
check 'a profile in the format of engines is converted' test "$status/$out" = 5//srv
check 'a rule whose condition holds is in force' says 'No space left on device'
check 'a rule for this kernel is in force' says 'Read-only file system'
finish
