#!/usr/bin/env bash
# Imports root filesystems from archives of every kind that tar programs write, and from directories.
# shellcheck source=cli_import_lib.sh disable=SC2317
. "$(dirname "$0")/cli_import_lib.sh"
need busybox
need bsdtar
need bzip2
need xz
need zstd

lenient=(--devices drop --long-links hop)

# reference ARCHIVE DIR: unpacks the archive with bsdtar.
reference() {
    mkdir -p "$2"
    quietly bsdtar -xpf "$1" -C "$2"
}

# as_bsdtar NAME ARCHIVE [OPTION...]
as_bsdtar() {
    local name=$1 archive=$2
    shift 2
    imports "$name" "$@" "$archive"
    reference "$archive" "$work/expected"
    same "$name" "$work/expected"
    rm -rf "$work/expected"
}

tree plain "$work/plain"
tree mixed "$work/mixed"
cd "$work" || exit 1

tar --format=v7 -C plain -cf v7.tar .
as_bsdtar 'V7 by GNU tar' v7.tar
plain_digest=$digest
compare() { "$tests/cli_import_compare.py" "$work/report" "$work/plain" "$work/other" >/dev/null 2>&1; }
cp -a plain other
check 'the comparison takes what is equal' compare
for damage in 'touch etc/plain' 'chmod 600 etc/empty' 'rm etc/block' 'cp etc/block etc/plain' 'touch new' \
    'ln -sf plain links/absolute' 'mkfifo pipe' 'touch var'; do
    (cd other && eval "$damage")
    check "the comparison notices: $damage" not compare
    rm -rf other && cp -a plain other
done
check 'a root filesystem is for this system' test "$(system_of "$layout" "$tag")" = zarnel
check 'the hard links are copied' test "$(losses hardlink-copied)" = 2
check 'set-id and sticky bits are lost' test "$(losses set-id)" = 2
check 'owners are lost' test "$(losses owner)" = 1
run zncctl import --tag strict --strict --report "$work/report" v7.tar "$layout"
check '--strict makes losses an error' test "$status/$out" = 1/
check 'the message names --strict' grep -q -- '--strict' "$work/err"
check 'the losses are printed' grep -q '^zncctl: lost: .*(first: home/user/own)' "$work/err"
check 'a failed import leaves no image' test -z "$(system_of "$layout" strict)"

tar --format=ustar -C plain -cf ustar.tar .
imports 'ustar by GNU tar' ustar.tar
check 'the same tree in another format gives the same image' test "$digest" = "$plain_digest"
imports 'ustar by GNU tar, again' ustar.tar --compress isal
check 'the same input gives the same image' test "$digest" = "$plain_digest"
(cd plain && find . | sort -r | tar --format=ustar --no-recursion -T - -cf ../reversed.tar)
imports 'children before their parents' reversed.tar
check 'the order of an archive changes nothing' test "$digest" = "$plain_digest"

tar --format=gnu --sparse --xattrs --xattrs-include='*' -C mixed -cf gnu.tar . 2>/dev/null
as_bsdtar 'GNU with sparse files' gnu.tar "${lenient[@]}"
tar --format=pax --sparse --xattrs --xattrs-include='*' -C mixed -cf pax.tar .
as_bsdtar 'pax by GNU tar' pax.tar "${lenient[@]}"
check 'capabilities are lost' test "$(losses xattr)" = 1
mixed_digest=$digest
bsdtar --format pax -C mixed -cf bsdpax.tar .
as_bsdtar 'pax by bsdtar' bsdpax.tar "${lenient[@]}"
check 'the same tree of another tar program gives the same image' test "$digest" = "$mixed_digest"
bsdtar --format gnutar -C mixed -cf bsdgnu.tar .
as_bsdtar 'GNU by bsdtar' bsdgnu.tar "${lenient[@]}"
for format in PAX GNU; do
    python3 - "$format" <<'PYTHON'
import sys, tarfile
with tarfile.open("python.tar", "w", format=getattr(tarfile, sys.argv[1] + "_FORMAT")) as archive:
    archive.add("mixed", arcname="/")
PYTHON
    as_bsdtar "$format by Python" python.tar "${lenient[@]}"
done

run zncctl import --tag devices gnu.tar "$layout"
check 'a device outside dev is an error' test "$status/$out" = 1/
check 'the message names the device' grep -q 'opt/\(device\|pipe\)' "$work/err"

# The same bytes in every compression, with a name that does not reveal it.
gzip -c pax.tar >gzip.bin
{ head -c 30000 pax.tar | gzip -c && tail -c +30001 pax.tar | gzip -c; } >members.bin
bzip2 -c pax.tar >bzip2.bin
xz -c -T 1 pax.tar >xz.bin
zstd -qc pax.tar >zstd.bin
for how in gzip members bzip2 xz zstd; do
    imports "compressed: $how" "$how.bin" "${lenient[@]}"
    check "$how makes no difference" test "$digest" = "$mixed_digest"
done

# Standard input, as a file and as a pipe, and the forms of a name.
from_file() { zncctl import --tag stdin-file "${lenient[@]}" - "$layout" <xz.bin; }
from_pipe() { head -c 100000000 xz.bin | zncctl import --tag stdin-pipe "${lenient[@]}" - "$layout"; }
for how in from_file from_pipe; do
    check "standard input ($how)" test "$($how 2>"$work/err")" = "$mixed_digest"
done
imports 'tar: before the name' "tar:$work/ustar.tar"
check 'tar: changes nothing' test "$digest" = "$plain_digest"

# Directories.
imports 'a directory' plain
same 'a directory' "$work/plain"
check 'a directory has the digest of its archive' test "$digest" = "$plain_digest"
imports 'dir: and a directory with everything' "dir:$work/mixed" "${lenient[@]}"
same 'a directory with everything' "$work/mixed"
python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' plain/socket
ln -s / plain/links/root
imports 'a directory with a link to / and a socket' plain
check 'the socket is passed over, the link is not followed' test "$(losses '')" = 3

# npm: deep trees with long names, and link targets that do not fit into a header.
tree npm "$work/npm"
tar --format=pax -C npm -cf npm.tar .
run zncctl import --tag npm npm.tar "$layout"
check 'a link target that is too long is an error' test "$status/$out" = 1/
check 'the message names --long-links' grep -q -- '--long-links' "$work/err"
imports 'a tree of npm packages' npm.tar --long-links hop
reference npm.tar "$work/expected"
same 'a tree of npm packages' "$work/expected" --untimed-directories
check '--long-links=hop creates a chain of links' test "$(losses link-target)" -gt 40
rm -rf "$work/expected"

# busybox with all its applet names, all of which are the same file.
mkdir -p applets/bin
cp "$(command -v busybox)" applets/bin/busybox
for applet in $(busybox --list); do ln applets/bin/busybox "applets/bin/$applet" 2>/dev/null; done
tar -C applets -cf applets.tar .
as_bsdtar 'busybox with every applet' applets.tar
check 'further names are links to the first ones' test "$(losses hardlink-linked)" -gt 100
imports 'busybox, links only' applets.tar --hardlinks symlink
same 'busybox, links only' "$work/applets"
check 'no name is a copy' test "$(losses hardlink-copied)" = 0
imports 'three names, copies only' ustar.tar --hardlinks copy --max-hardlink-bytes 1
check 'all further names are copies' test "$(losses hardlink-copied)/$(losses hardlink-linked)" = 2/0

# Names that cannot be represented.
mkdir -p odd
printf 'x' >"odd/$(printf 'n%.0s' {1..150})"
printf 'y' >'odd/back\slash'
printf 'z' >odd/fits
tar --format=pax -C odd -cf odd.tar .
run zncctl import --tag odd odd.tar "$layout"
check 'a name that cannot be carried is an error' test "$status/$out" = 1/
imports 'without what cannot be carried' odd.tar --skip-unrepresentable
same 'what cannot be represented is left out' "$work/odd"
check 'the omitted file is in the report' test "$(losses unrepresentable)" = 2

# Archives that cannot be made from a directory tree.
python3 - <<'PYTHON'
import io, tarfile

def member(archive, name, kind=tarfile.REGTYPE, content=b"", **fields):
    info = tarfile.TarInfo(name)
    info.type, info.size, info.mtime = kind, len(content), 981173106
    for field, value in fields.items():
        setattr(info, field, value)
    archive.addfile(info, io.BytesIO(content))

with tarfile.open("loose.tar", "w", format=tarfile.PAX_FORMAT) as archive:
    member(archive, "/absolute/name", content=b"1")
    member(archive, "./without/its/parents", content=b"2")
    member(archive, "twice", content=b"first")
    member(archive, "twice", content=b"second")
    member(archive, "was/directory", tarfile.DIRTYPE, mode=0o755)
    member(archive, "was/directory/gone", content=b"3")
    member(archive, "real", tarfile.DIRTYPE, mode=0o755)
    member(archive, "linked", tarfile.SYMTYPE, linkname="real")
    member(archive, "linked/through", content=b"4")
    member(archive, "early", tarfile.LNKTYPE, linkname="late")
    member(archive, "late", content=b"5")
    member(archive, "old", content=b"6", mtime=-1)
with tarfile.open("outside.tar", "w") as archive:
    member(archive, "../outside", content=b"!")
PYTHON
imports 'loose members' loose.tar
takes 'loose members'
unpack_to "$work/bundle"
said() { (cd "$root" && cat absolute/name without/its/parents twice was/directory/gone real/through early late old); }
check 'the last of duplicate members is used' test "$(said)" = 12second34556
check 'a linked directory stays one' test "$(readlink "$root/linked")" = real
check 'a time before 1970 is the first second of it' test "$(stat -c %Y "$root/old")" = 0
check 'a parent without a member is as old as its child' test "$(stat -c '%a %Y' "$root/without/its")" = \
    '755 981173106'
drop_bundle "$work/bundle"
check 'a time that was lost is listed' test "$(losses time)" = 1
before=$(state_of "$layout")
run zncctl import --tag outside outside.tar "$layout"
check 'a name that leaves the root is an error' test "$status/$out" = 1/
check 'a refused import does not change the layout' test "$before" = "$(state_of "$layout")"
run zncctl import --dry-run ustar.tar "$work/nowhere"
check 'a dry run tells the digest' test "$status/$out" = "0/$plain_digest"
check 'a dry run writes nothing' test ! -e "$work/nowhere"

cd / || exit 1
finish
