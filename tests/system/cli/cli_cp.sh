#!/usr/bin/env bash
# Tests of zncctl cp: both ways, with containers that change what is copied.
# shellcheck source=cli_lib.sh disable=SC2317,SC2016
. "$(dirname "$0")/cli_lib.sh"
need busybox
# cli_cp_users: each container has users of its own.
start_daemon ${ZNCD_OPTION:+"$ZNCD_OPTION"}

make_bundle "$work/bundle" /bin/sleep $mark
for applet in ln rm mkdir mkfifo mv chmod stat id ls touch truncate readlink dd; do ln -sf busybox "$work/bundle/rootfs/bin/$applet"; done
jq '.process.user={"uid":1234,"gid":500}' "$work/bundle/config.json" >"$work/config.json"
mv "$work/config.json" "$work/bundle/config.json"
chmod 1777 "$work/bundle/rootfs/tmp"
zncctl run -d --name web -b "$work/bundle" >/dev/null
inside() { zncctl exec -u 0 web sh -c "$1"; }
says() { grep -qF -- "$1" "$work/err"; }
mkdir -p "$work/tree/sub/deeper" "$work/tree/empty"
echo one >"$work/tree/one"
echo two >"$work/tree/sub/two"
ln -s ../one "$work/tree/sub/link"
ln -s /etc/passwd "$work/tree/absolute"
chmod 4755 "$work/tree/one"
touch -d 2001-02-03T04:05:06Z "$work/tree/one"
chmod 750 "$work/tree/sub"

# --- into a container
run zncctl cp "$work/tree/one" web:/tmp/
expect 'a file is copied into a directory' 0 '' ''
check 'a copied file has mode, owner and time, but no set-user-ID' test "$(inside 'stat -c "%a %u %g %Y" /tmp/one')" = \
    '755 1234 500 981173106'
run zncctl cp "$work/tree/one" web:/tmp/other
check 'a file is copied to a new name' test "$status/$(inside 'cat /tmp/other')" = 0/one
run zncctl cp "$work/tree/sub/two" web:/tmp/other
check 'an existing file is replaced' test "$status/$(inside 'cat /tmp/other')" = 0/two
run zncctl cp "$work/tree" web:/tmp
check 'a directory is copied under its name' test "$status/$(inside 'cat /tmp/tree/sub/two')" = 0/two
check 'a copied directory keeps modes, and links as links' test "$(inside \
    'stat -c %a:%u /tmp/tree/sub; ls -l /tmp/tree/sub/link /tmp/tree/absolute | grep -o -e "-> .*"' |
    tr '\n' ' ')" = '750:1234 -> /etc/passwd -> ../one '
run zncctl cp "$work/tree" web:/tmp/new
check 'a directory is copied to a new name' test "$status/$(inside 'cat /tmp/new/one; ls /tmp/new')" = \
    $'0/one\nabsolute\nempty\none\nsub'
run zncctl cp "$work/tree/." web:/tmp/new/sub
check 'the content of DIR/. is copied' test "$status/$(inside 'cat /tmp/new/sub/one; ls -d /tmp/new/sub/two')" = \
    $'0/one\n/tmp/new/sub/two'
run zncctl cp "$work/tree/one" web:/no/such/place
fails_with 'a missing directory is an error' 1 '/no/such: No such file or directory'
run zncctl cp "$work/tree/one" web:/tmp/no-directory/
fails_with 'a name with / at its end is a directory' 1 '/tmp/no-directory/: Not a directory'
run zncctl cp "$work/tree" web:/tmp/other
check 'a directory does not replace a file' test "$status" = 1
check 'the file that a directory should replace stays' test "$(inside 'cat /tmp/other')" = two
run zncctl cp "$work/none" web:/tmp
fails_with 'a source that is missing' 1 "$work/none: No such file or directory"
mkfifo "$work/pipe"
run zncctl cp "$work/pipe" web:/tmp
check 'a FIFO is not copied, and nothing waits' test "$status/$out" = 1/
inside 'mkfifo /tmp/pipe'
run zncctl cp "$work/tree/one" web:/tmp/pipe
check 'an existing FIFO is not replaced' test "$status/$out" = 1/
# A file that is mounted: its name must not be replaced, which would detach the mount.
make_bundle "$work/mounts" /bin/sleep $mark
echo configured >"$work/conf"
for mode in ro rw; do
    jq --arg mode $mode --arg source "$work/conf" '.mounts += [{"destination":"/tmp/conf","type":"bind",
        "source":$source,"options":["bind",$mode]}]' "$work/mounts/config.json" >"$work/$mode.json"
done
cp "$work/ro.json" "$work/mounts/config.json"
zncctl run -d --name mounted -b "$work/mounts" >/dev/null
run zncctl cp "$work/tree/sub/two" mounted:/tmp/conf
fails_with 'a file that is mounted read-only is not replaced' 1 'conf: Read-only file system'
check 'a mounted file stays mounted when a file is copied over it' test "$(zncctl exec mounted cat /tmp/conf)" = configured
mkdir -p "$work/links/tmp"
ln -s elsewhere "$work/links/tmp/conf"
run zncctl cp "$work/links/." mounted:/
fails_with 'nor by a link' 1 'conf: Device or resource busy'
check 'a mounted file stays mounted when a directory is copied over it' test "$(zncctl exec mounted cat /tmp/conf)" = configured
zncctl delete -f mounted
cp "$work/rw.json" "$work/mounts/config.json"
zncctl run -d --name mounted -b "$work/mounts" >/dev/null
run zncctl cp "$work/conf" mounted:/tmp/conf
fails_with 'a file is not copied to itself' 1 'source and destination are the same file'
run zncctl cp "$work/tree/sub/two" mounted:/tmp/conf
check 'a file that is mounted is written in place' test "$status/$(cat "$work/conf")" = 0/two
check 'a mounted file stays mounted when it is written in place' test "$(zncctl exec mounted cat /tmp/conf)" = two
zncctl delete -f mounted

# A link as the destination leads to the file to write.
echo old >"$work/real"
ln -s real "$work/to-real"
ln -s nothing "$work/to-nothing"
inside 'echo old >/tmp/real; ln -s real /tmp/to-real; echo new >/tmp/fresh'
run zncctl cp web:/tmp/fresh "$work/to-real"
check 'a link to a file is followed' test "$status/$(cat "$work/real")/$(readlink "$work/to-real")" = 0/new/real
run zncctl cp "$work/tree/one" web:/tmp/to-real
check 'a link to a file in a container is followed' test "$status/$(inside 'cat /tmp/real; readlink /tmp/to-real')" = $'0/one\nreal'
run zncctl cp web:/tmp/fresh "$work/to-nothing"
fails_with 'a link to nothing is an error' 1 "$work/to-nothing: No such file or directory"
mkfifo "$work/stream"
ln -s stream "$work/to-stream"
run zncctl cp web:/tmp/fresh "$work/to-stream"
check 'a link to a FIFO is not written to, and stays' test "$status/$(readlink "$work/to-stream")" = 1/stream

# Holes, files without a size, and what ends early.
inside 'truncate -s 300M /tmp/holes; echo end >>/tmp/holes'
run zncctl cp web:/tmp/holes "$work/holes"
check 'holes stay holes' test "$status/$(($(stat -c %b "$work/holes") < 2048))/$(tail -c 4 "$work/holes")" = 0/1/end
check 'a copied sparse file has the same size' test "$(stat -c %s "$work/holes")" = 314572804
run zncctl cp web:/proc/version "$work/version"
check 'a file of procfs is copied' test "$status/$(cat "$work/version")" = "0/$(cat /proc/version)"
inside 'dd if=/dev/zero of=/tmp/large bs=1M count=200 2>/dev/null'
mkdir "$work/ended"
copy_has_begun() { [[ -n $(ls -A "$work/ended") || ! -d /proc/$1 ]]; }
# Sends a signal to a copy when it has begun. The status is 0 if the copy was complete before that.
end_copy() {
    rm -f "$work/ended/"*
    env --default-signal="$1" "$ZNCCTL" cp web:/tmp/large "$work/ended/" &
    local copying=$!
    eventually copy_has_begun "$copying"
    kill -s "$1" "$copying" 2>/dev/null
    status=0
    wait "$copying" || status=$?
}
for signal in INT TERM; do
    for _ in 1 2 3 4 5; do
        end_copy $signal
        [[ $status -eq 0 ]] || break
    done
    check "SIG$signal ends a copy" test "$status" = $((128 + $(kill -l $signal)))
    check "a copy that SIG$signal ends leaves no files" test -z "$(ls -A "$work/ended")"
done
# A pipe may have no data, or no room, for ever. Both are held open by this shell.
mkfifo "$work/without-data" "$work/without-room"
exec 7<>"$work/without-data" 8<>"$work/without-room"
"$ZNCCTL" cp - web:/tmp <&7 &
reading=$!
"$ZNCCTL" cp web:/tmp/large - >&8 &
writing=$!
is_at() { grep -q "$2" "/proc/$1/wchan"; }
check 'a copy waits for data' eventually is_at "$reading" pipe_read
check 'a copy waits for room' eventually is_at "$writing" pipe_write
for process in "$reading" "$writing"; do
    kill "$process"
    status=0
    wait "$process" || status=$?
    check 'SIGTERM ends a copy that waits for a pipe' test "$status" = 143
done
exec 7>&- 8>&-
inside 'rm /tmp/large /tmp/holes /tmp/real /tmp/to-real /tmp/fresh'

(cd "$work/tree" && zncctl cp one web:tmp/relative)
check 'paths without / are below the root and the working directory' test "$(inside 'cat /tmp/relative')" = one
check 'no temporary file is left' test -z "$(inside 'ls -A /tmp | grep "^\."')"

# --- out of a container
mkdir "$work/here"
run zncctl cp web:/tmp/tree/one "$work/here"
check 'a file is copied to the host' test "$status/$(<"$work/here/one")" = 0/one
check 'a copy on the host belongs to the caller' test "$(stat -c '%a %u %g' "$work/here/one")" = '755 0 0'
inside 'touch /tmp/suid; chmod 6777 /tmp/suid'
run zncctl cp web:/tmp/suid "$work/here"
check 'a copy on the host has no set-user-ID bit' test "$(stat -c %a "$work/here/suid")" = 777
run zncctl cp web:/tmp/tree "$work/here"
check 'a directory is, too' test "$status/$(<"$work/here/tree/sub/two")/$(readlink "$work/here/tree/absolute")" = \
    0/two//etc/passwd
run zncctl cp web:/tmp/tree/. "$work/content"
check 'DIR/. copies the content of a directory' test "$status/$(<"$work/content/one")" = 0/one
run zncctl cp web:/tmp/pipe "$work/here/pipe"
fails_with 'a FIFO is not copied' 1 '/tmp/pipe: It is not a regular file'
inside 'mkdir /tmp/special; mkfifo /tmp/special/pipe'
run zncctl cp web:/tmp/special "$work/here"
fails_with 'a FIFO in a directory is not copied' 1 '/tmp/special/pipe: it is a device, FIFO or socket, which is not copied'
run zncctl cp web:/dev/null "$work/here"
check 'a device is not copied' test "$status" = 1 -a ! -e "$work/here/null"

# --- links that lead out
mkdir -p "$work/secret"
echo secret >"$work/secret/file"
inside "ln -s $work/secret /tmp/out; ln -s ../../../../../../../..$work/secret /tmp/up; ln -s /tmp/tree /tmp/in"
for link in out up; do
    run zncctl cp "web:/tmp/$link/file" "$work/here"
    check "a link that leads out of the container ($link) is not read" test "$status" = 1 -a ! -e "$work/here/file"
    run zncctl cp "$work/tree/one" "web:/tmp/$link/planted"
    check "nothing is written through a link that leads out ($link)" test "$status" = 1 -a ! -e "$work/secret/planted"
done
run zncctl cp web:/tmp/in/one "$work/here/through"
check 'a link that stays inside is followed' test "$status/$(<"$work/here/through")" = 0/one
inside "mkdir -p /tmp/target; ln -s $work/secret /tmp/target/tree"
run zncctl cp "$work/tree" web:/tmp/target
check 'a directory is not copied through a link' test "$status" = 1
check 'nothing is written through a link to a directory' test "$(ls "$work/secret")" = file
inside "mkdir -p /tmp/target2/tree; ln -s $work/secret/file /tmp/target2/tree/one"
run zncctl cp "$work/tree" web:/tmp/target2
check 'a link in the place of a file is replaced' test "$status/$(<"$work/secret/file")/$(inside \
    'cat /tmp/target2/tree/one')" = 0/secret/one

# --- archives
mkdir -p "$work/archive/top/sub" "$work/plain"
archive() { tar -C "$work/archive" --owner=77 --group=88 "$@" -cf - top; }
echo first >"$work/archive/top/file"
chmod 4754 "$work/archive/top/file"
touch -d 2001-02-03T04:05:06Z "$work/archive/top/file" "$work/archive/top/sub"
ln "$work/archive/top/file" "$work/archive/top/sub/hard"
ln -s ../file "$work/archive/top/sub/soft"
long=$(printf 'n%.0s' {1..110})
mkdir -p "$work/archive/top/$long/$long"
echo long >"$work/archive/top/$long/$long/file"
ln -s "/$long/$long" "$work/archive/top/long"
touch -d 2001-02-03T04:05:06Z "$work/archive/top/sub"
# put ARGUMENT...: cp with the archive on standard input.
put() {
    "$ZNCCTL" cp - "$@" >"$work/out" 2>"$work/err" <"$work/in.tar"
    status=$?
    out=$(<"$work/out") err=$(<"$work/err")
}
for format in pax gnu; do
    inside "mkdir -p /tmp/$format"
    archive --format=$format >"$work/in.tar"
    put "web:/tmp/$format"
    expect "an archive on standard input is extracted ($format)" 0 '' ''
    check "with modes without set-user-ID, the owner of the program, and times ($format)" test "$(inside \
        "cd /tmp/$format/top; stat -c '%a %u %g %Y' file sub" | tr '\n' ' ')" = \
        '754 1234 500 981173106 755 1234 500 981173106 '
    check "links and long names ($format)" test "$(inside "cd /tmp/$format/top; stat -c %h file; cat sub/soft sub/hard $long/$long/file
        ls -l long | grep -o -e '-> .*'" | tr '\n' ' ')" = "2 first first long -> /$long/$long "
done
echo second >"$work/archive/top/file"
archive >"$work/in.tar"
inside 'chmod 700 /tmp/gnu/top/sub; rm /tmp/gnu/top/sub/soft; echo x >/tmp/gnu/top/sub/soft'
put web:/tmp/gnu
check 'files that exist are replaced' test "$status/$(inside 'cat /tmp/gnu/top/file /tmp/gnu/top/sub/soft')" = $'0/second\nsecond'
check 'directories are kept' test "$(inside 'stat -c %a /tmp/gnu/top/sub')" = 700
archive -v 2>/dev/null --blocking-factor=200 | "$ZNCCTL" cp - web:/tmp/pax
check 'the program that writes the archive does not fail' test "${PIPESTATUS[*]}" = '0 0'
put web:/tmp/gnu/top/file
fails_with 'the destination must be a directory' 1 '/tmp/gnu/top/file: Not a directory'
put web:/no/such
fails_with 'which exists' 1 '/no/such: No such file or directory'
archive | gzip >"$work/in.tar"
put web:/tmp
fails_with 'a compressed archive is refused' 1 'it is not a tar archive; one that is compressed must be decompressed before'
: >"$work/in.tar"
put web:/tmp
check 'nothing is no archive' test "$status/$out" = 1/
archive | head -c 2000 >"$work/in.tar"
put web:/tmp
check 'a truncated archive is an error' test "$status/$out" = 1/
echo planted >"$work/plain/planted"
for name in "../../../../../../../../../../../..$work/secret/planted" "x/../../../../../../../..$work/secret/planted"; do
    tar -C "$work/plain" -P --transform "s|.*|$name|" -cf "$work/in.tar" planted
    put web:/tmp/pax
    check "a name that leads out is refused (${name:0:4})" test "$status/$out" = 1/
done
tar -C "$work/plain" -P --transform "s|.*|$work/secret/absolute|" -cf "$work/in.tar" planted
put web:/tmp/pax
check 'an absolute name is below the directory' test "$status/$(inside "cat /tmp/pax$work/secret/absolute")" = 0/planted
mkdir -p "$work/secret" "$work/plant/link"
echo planted >"$work/plant/link/planted"
ln -s "$work/secret" "$work/plain/link"
tar -C "$work/plain" -cf "$work/in.tar" link
tar -C "$work/plant" -rf "$work/in.tar" link/planted
put web:/tmp/pax
check 'a name through a link of the archive does not lead out' test "$status" = 1
python3 - "$work/in.tar" "$work/secret" <<'P'
import sys, tarfile
with tarfile.open(sys.argv[1], "w") as archive:
    link = tarfile.TarInfo("hard")
    link.type, link.linkname = tarfile.LNKTYPE, "../../../../../.." + sys.argv[2] + "/file"
    archive.addfile(link)
P
put web:/tmp/pax
check 'the target of a hard link cannot lead out' test "$status" = 1
check 'nothing of all that is on the host' test "$(ls "$work/secret")/$(<"$work/secret/file")" = file/secret
mkfifo "$work/plain/fifo"
tar -C "$work/plain" -cf "$work/in.tar" fifo
put web:/tmp/pax
fails_with 'a FIFO in an archive is refused' 1 'fifo: it is a FIFO, which is not copied'
# get SOURCE ARGUMENT...: runs tar on what cp writes.
get() {
    local source=$1
    shift
    "$ZNCCTL" cp "$source" - 2>"$work/err" | tar -f - "$@"
}
inside 'cd /tmp/pax/top; chmod 6755 file; mkfifo pipe'
check 'a directory is written as an archive under its name' test "$(get web:/tmp/pax/top -t | grep -v nnn | tr '\n' ' ')" = \
    'top/ top/file top/long top/pipe top/sub/ top/sub/hard top/sub/soft '
check 'DIR/. writes the content of a directory as an archive' test "$(get web:/tmp/pax/top/. -t | head -1)" = file
check 'a single file is written as an archive' test "$(get web:/tmp/pax/top/file -xO)" = second
check 'a member has all mode bits and its owner' test "$(get web:/tmp/pax/top/file --numeric-owner -tv | cut -c -20)" = \
    '-rwsr-sr-x 1234/500 '
mkdir "$work/back"
get web:/tmp/gnu/top -C "$work/back" -xp
check 'an extracted archive equals its source' diff -r --no-dereference "$work/archive/top" "$work/back/top"
"$ZNCCTL" cp web:/tmp/gnu/top - | "$ZNCCTL" cp - web:/tmp/target3 2>"$work/err"
check 'to a directory that does not exist it does not go' test "${PIPESTATUS[1]}" = 1
inside 'mkdir /tmp/target3'
"$ZNCCTL" cp web:/tmp/gnu/top - | "$ZNCCTL" cp - web:/tmp/target3
check 'between containers by a pipe' test "${PIPESTATUS[*]}/$(inside 'cat /tmp/target3/top/file')" = '0 0/second'
run zncctl cp web:/no/such -
fails_with 'a source that is missing is an error' 1 '/no/such: No such file or directory'
run script -qec "$ZNCCTL cp web:/tmp -" /dev/null
check 'an archive is not written to a terminal' test "$status" = 64
run script -qec "$ZNCCTL cp - web:/tmp" /dev/null
check 'an archive is not read from a terminal' test "$status" = 64

# --- a container that swaps a directory and a link while it is copied
zncctl exec -d -u 0 web sh -c "mkdir /tmp/race; while :; do mkdir /tmp/race/d; echo own >/tmp/race/d/file
    rm -rf /tmp/race/d; ln -s $work/secret /tmp/race/d; rm /tmp/race/d; done"
tar -C "$work/tree" -cf "$work/race.tar" one sub
swapped() { inside 'ls /tmp/race' >/dev/null 2>&1; }
eventually swapped
leaked=no
for ((i = 0; i < 60; i++)); do
    zncctl cp web:/tmp/race "$work/race" >"$work/out" 2>&1
    zncctl cp "$work/tree/." web:/tmp/race/d >"$work/out" 2>&1
    zncctl cp "$work/tree/one" web:/tmp/race/d/file >"$work/out" 2>&1
    "$ZNCCTL" cp - web:/tmp/race/d <"$work/race.tar" >"$work/out" 2>&1
    if "$ZNCCTL" cp web:/tmp/race - 2>"$work/err" >"$work/read.tar"; then
        tar -xOf "$work/read.tar" >>"$work/contents" || leaked=yes
    fi
    [[ -L $work/race/d ]] || ! grep -qs secret "$work/race/d/file" || leaked=yes
    rm -rf "$work/race"
done
check 'nothing of the host is read in a race' test $leaked = no
check 'a file of the host is not written to an archive' not grep -aq '^secret$' "$work/contents"
check 'a file of the host is not written' test "$(ls "$work/secret")/$(<"$work/secret/file")" = file/secret

# --- trees without end
inside 'mkdir /tmp/deep; cd /tmp/deep; i=0; while [ $i -lt 210 ]; do mkdir d; cd d; i=$((i + 1)); done'
run zncctl cp web:/tmp/deep "$work/deep"
check 'a tree that is too deep is an error' test "$status" = 1
check 'the error names the maximum depth' says 'more than 200 levels'
rm -rf "$work/deep"
run zncctl cp web:/proc/sys/kernel/hostname "$work/here/none"
check 'files of /proc are read like others' test "$status" = 0
run zncctl cp "$work/tree/one" web:/proc/sys/kernel/core_pattern
check 'a file of procfs that cannot be written is an error' test "$status" = 1

# --- other states, wrong use
zncctl stop -q -t 0 web
run zncctl cp web:/tmp/tree/one "$work/here/stopped"
check 'a stopped container can be copied from' test "$status/$(<"$work/here/stopped")" = 0/one
zncctl create made "$work/bundle"
run zncctl cp "$work/tree/one" made:/tmp/early
expect 'a container that was not started can be copied from' 0 '' ''
run zncctl cp made:/tmp/early "$work/here/early"
check 'a file of a container that was not started is copied' test "$status/$(<"$work/here/early")" = 0/one
check 'the bundle does not' test ! -e "$work/bundle/rootfs/tmp/early"
run zncctl cp nosuch:/etc "$work/here"
fails_with 'a container that does not exist' 2 'Container does not exist'
for words in 'a b' 'web:/a made:/b' 'web: -' '- -' '- b' 'web: /a' 'web:/a' './web:/a /b'; do
    # shellcheck disable=SC2086
    run zncctl cp $words
    check "cp $words is a usage error" test "$status/$out" = 64/
done
inside2=$(printf 'x\x1b[2J')
run zncctl cp "made:/$inside2" "$work/here"
check 'names are printed without control characters' not grep -q "$(printf '\x1b')" "$work/err"
zncctl rm -qaf
finish
