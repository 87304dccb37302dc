#!/usr/bin/env bash
# Tests of zncctl diff and export, also of containers that change their files meanwhile.
# shellcheck source=cli_lib.sh disable=SC2317,SC2016
. "$(dirname "$0")/cli_lib.sh"
need busybox
need jq
need python3
start_daemon

make_bundle "$work/bundle" /bin/sleep $mark
root=$work/bundle/rootfs
for applet in ln rm mkdir mkfifo mv chmod chown stat ls touch dd; do ln -sf busybox "$root/bin/$applet"; done
mkdir -p "$root"/etc "$root"/usr/{gone,again,kept}
echo one >"$root/etc/changed"
echo two >"$root/etc/deleted"
echo three >"$root/usr/again/hidden"
echo four >"$root/usr/again/stays"
echo five >"$root/usr/gone/file"
echo six >"$root/usr/kept/file"
ln -s changed "$root/etc/link"
chmod 1777 "$root/tmp"
zncctl run -d --name web -b "$work/bundle" >/dev/null
inside() { zncctl exec -u 0 web sh -c "$1"; }

# ---------------------------------------------------------------- diff
run zncctl diff web
expect 'a container that changed nothing has no differences' 0 '' ''
run zncctl diff --format json web
expect 'an empty list of differences in JSON' 0 '{}' ''
inside 'echo new >/etc/changed; rm /etc/deleted; rm -r /usr/gone; rm -r /usr/again; mkdir /usr/again
    echo four >/usr/again/stays; mkdir -p /new/sub; echo x >/new/sub/file; ln -s /nowhere /new/link
    rm /etc/link; mkdir /etc/link; echo y >/etc/link/file; chmod 700 /usr/kept; mkfifo /new/pipe'
run zncctl diff web
expect 'diff lists what was added, changed and deleted' 0 'C /etc
C /etc/changed
D /etc/deleted
C /etc/link
A /etc/link/file
A /new
A /new/link
A /new/pipe
A /new/sub
A /new/sub/file
C /usr
C /usr/again
D /usr/again/hidden
C /usr/again/stays
D /usr/gone
C /usr/kept' ''
run zncctl diff --format json web
check 'diff in JSON lists changes by kind' test "$status/$(jq -c '[.added[0], .changed[0], .deleted]' <<<"$out")" = \
    '0/["/etc/link/file","/etc",["/etc/deleted","/usr/again/hidden","/usr/gone"]]'
inside 'touch "/tmp/$(printf "a\033[2J\nD etc")"'
run zncctl diff web
check 'names are printed without control characters' test "$(grep -c "$(printf '\033')" "$work/out")/$(grep -c '^D etc$' "$work/out")" = 0/0
run zncctl diff nosuch
fails_with 'a container that does not exist' 2 'Container does not exist'
run zncctl diff web --format yaml
fails_with 'an unknown format is refused' 64 'invalid format option'

# ---------------------------------------------------------------- export
# What two trees hold: types, modes, owners, sizes, targets, times and contents.
describe() {
    (cd "$1" && find . -mindepth 1 ! -type s -printf '%P %y %m %U:%G %l ' \
        \( -type f -printf '%n %s %Ts ' -exec sha256sum {} \; -o -printf '\n' \)) | sort
}
long=$(printf 'd%.0s' {1..120})
inside "mkdir -p /new/$long/$long; echo long >/new/$long/$long/file; ln -s /$long/$long/$long /new/$long/target
    ln /new/sub/file /new/sub/second; chmod 4755 /new/sub/file; chown 12345678:500 /etc/changed; touch -d @1000000001 /etc/changed
    touch -d @-5 /new/old; touch \"/new/\$(printf 'x\\377y')\"; dd if=/dev/zero of=/new/sparse bs=1 count=1 seek=3000000 2>/dev/null"
zncctl stop -q -t 0 web
run zncctl export -o "$work/web.tar" web
expect 'export writes the root to a file' 0 '' ''
mkdir "$work/extracted"
tar -C "$work/extracted" --numeric-owner -xpf "$work/web.tar" 2>"$work/tar.err"
check 'which tar extracts, complaining about the time before 1970 alone' test -z "$(grep -v 'new/old: implausibly old' "$work/tar.err")"
check 'an exported archive equals the root of the container' diff <(describe /overlay/web) <(describe "$work/extracted")
check 'all names in the archive are relative' python3 - "$work/web.tar" <<'P'
import sys, tarfile
names = [member.name for member in tarfile.open(sys.argv[1], encoding="utf-8", errors="surrogateescape")]
sys.exit(not names or any(name.startswith("/") or ".." in name.split("/") for name in names))
P
check 'hard links are links' grep -q ' link to new/sub/file$' <(tar -tvf "$work/web.tar")
check 'nothing of its mounts is in it' test -z "$(tar -tf "$work/web.tar" | grep -E '^(proc|dev|sys)/.')"
"$ZNCCTL" export web >"$work/piped.tar" 2>"$work/err"
check 'by default the archive goes to standard output' cmp "$work/web.tar" "$work/piped.tar"
check 'the size is a multiple of the record' test $(($(stat -c %s "$work/web.tar") % 10240)) = 0
run script -qec "$ZNCCTL export web" /dev/null
check 'export does not write to a terminal' test "$status" = 64
check 'the message suggests to redirect the output' grep -q 'redirect the output or give --output' "$work/out"
check 'two archives of the same files are the same' cmp "$work/web.tar" <("$ZNCCTL" export web)
umask 027
rm -f "$work/web.tar"
zncctl export -o "$work/web.tar" web
umask 022
check 'a new file has the mode that the umask leaves' test "$(stat -c %a "$work/web.tar")" = 640
echo old >"$work/kept.tar"
chmod 600 "$work/kept.tar"
zncctl export -o "$work/kept.tar" web
check 'an existing output file keeps its mode' test "$(stat -c %a "$work/kept.tar")" = 600
check 'an existing output file is replaced' cmp "$work/web.tar" "$work/kept.tar"
run zncctl export -o "$work/none/web.tar" web
fails_with 'a directory that does not exist' 1 "$work/none/web.tar: No such file or directory"
if [[ -c /dev/full ]]; then
    run zncctl export -o /dev/full web
    fails_with 'a full disk is an error' 1 'the archive: No space left on device'
else
    printf 'skipped: there is no /dev/full to write to\n'
fi
run zncctl export nosuch
fails_with 'a container that does not exist' 2 'Container does not exist'
# A signal ends the export when its file reaches a size of one MiB.
mkdir "$work/killed"
dd if=/dev/urandom of=/overlay/web/large bs=1M count=8 2>/dev/null
(
    ulimit -f 1024
    exec "$ZNCCTL" export -o "$work/killed/web.tar" web
)
check 'the export was killed before its end' test $? = 153
check 'nothing is left of an export that was killed' test -z "$(ls -A "$work/killed")"
rm -rf /overlay/web/large "$work/killed"
check 'nothing is left of archives that failed' test -z "$(find "$work" -name '*.tar.*')"

# ---------------------------------------------------------------- created, and in the middle of changes
zncctl create made "$work/bundle"
run zncctl diff made
expect 'a container that was not started has no differences' 0 '' ''
check 'a container that was not started can be exported' grep -q '^etc/changed$' <("$ZNCCTL" export made | tar -tf -)
zncctl export made | zncctl import -q - exported
run zncctl run --rm --network none --progress none --pull never exported /bin/cat /etc/changed
expect 'an exported container can be imported and run' 0 one ''
mkdir "$work/secret"
echo secret >"$work/secret/file"
zncctl run -d --name race -b "$work/bundle" sh -c "mkdir /race; while :; do mkdir /race/d; echo own >/race/d/file; echo a >/race/f
    rm -rf /race/d; ln -s $work/secret /race/d; rm /race/d; rm /race/f; mkfifo /race/f; rm /race/f
    ln -s $work/secret/file /race/f; rm /race/f; done" >/dev/null
swapped() { zncctl exec race ls /race >/dev/null 2>&1; }
eventually swapped
bad=0
for ((i = 0; i < 60; i++)); do
    "$ZNCCTL" export -o "$work/race.tar" race 2>>"$work/race.err" || bad=$((bad + 1))
    tar -xOf "$work/race.tar" >>"$work/contents" 2>>"$work/race.err" || bad=$((bad + 1))
    "$ZNCCTL" diff race >"$work/diff.out" 2>>"$work/race.err" || bad=$((bad + 1))
    ! grep -q secret/ "$work/diff.out" || bad=$((bad + 1))
done
check 'what a container swaps meanwhile does not disturb an export' test $bad = 0
check 'no content of the host gets into the archive' not grep -aq '^secret$' "$work/contents"
zncctl delete -qf race
zncctl run -d --name deep -b "$work/bundle" sh -c 'i=0; while [ $i -lt 210 ]; do mkdir d; cd d; i=$((i + 1)); done; exec sleep 1000' >/dev/null
deep() { zncctl diff deep 2>&1 | grep -q 'more than 200 levels'; }
check 'a tree that is too deep is an error of diff' eventually deep
run zncctl export -o "$work/deep.tar" deep
check 'a tree that is too deep is an error of export' test "$status" = 1 -a ! -e "$work/deep.tar"
zncctl rm -qaf
finish
