#!/usr/bin/env bash
# Tests of the limits of an import, and of what an import leaves if it ends early: limits, bombs, full disks,
# kills. With ZNC_SANITIZED memory is not measured.
# shellcheck source=cli_import_lib.sh disable=SC2317
. "$(dirname "$0")/cli_import_lib.sh"
need bzip2
need xz
need zstd

cd "$work" || exit 1
tree plain "$work/plain"
tar -C plain -cf plain.tar .
run zncctl import plain.tar "$layout:first"
before=$(state_of "$layout")
check 'there is a layout' test "$status" = 0 -a -n "$before"

# as_before NAME: checks that a failed import has left nothing.
as_before() {
    check "$1: the layout is as it was" test "$before" = "$(state_of "$layout")"
    check "$1: no temporary file stays" test -z "$(ls -A "$TMPDIR")"
}

# refuses FLAG SOURCE [OPTION...]: checks that the import fails within seconds with an error that names the
# option.
refuses() {
    local flag=$1 source=$2
    shift 2
    run timeout 60 "$ZNCCTL" import "$@" "$source" "$layout:second"
    check "$flag $source: refused" test "$status/$out" = 1/
    check "$flag $source: the message names it" grep -q -- "$flag" "$work/err"
    as_before "$flag $source"
}

refuses --max-entries plain.tar --max-entries 10
refuses --max-entries plain --max-entries 10
refuses --max-bytes plain.tar --max-bytes 1000
refuses --max-bytes plain --max-bytes 1000
refuses --max-depth plain.tar --max-depth 2
refuses --max-depth plain --max-depth 2
run zncctl import --max-hardlink-bytes 10 --report report plain.tar "$layout:first" -f
check 'copies of hard links have a limit' test "$status/$(losses hardlink-linked)/$(losses hardlink-copied)" = \
    0/2/0
run zncctl import -f plain.tar "$layout:first"
before=$(state_of "$layout")

# Bombs.
head -c 64M /dev/zero >zeros
tar -cf zeros.tar zeros
zstd -q zeros.tar
xz -k -0 zeros.tar
bzip2 -k -1 zeros.tar
for suffix in zst xz bz2; do refuses --max-ratio "zeros.tar.$suffix"; done
run zncctl import --max-ratio 100000 zeros.tar.zst "$work/zeros.layout"
check 'a higher limit lets it pass' test "$status" = 0
rm -rf zeros zeros.tar zeros.layout
mkdir huge
truncate -s 1T huge/file
tar --sparse --format=pax -cf huge.tar huge
refuses --max-bytes huge.tar --max-bytes 100000000
refuses --max-bytes huge --max-bytes 100000000

# Truncated archives. An archive that ends between two members cannot be distinguished from one without
# end-of-archive blocks, which some programs write; missing padding after these blocks does not matter.
gzip -k plain.tar && bzip2 -k plain.tar && xz -k plain.tar && zstd -q plain.tar
for suffix in tar tar.gz tar.bz2 tar.xz tar.zst; do
    size=$(stat -c %s "plain.$suffix")
    cuts=(3 $((size / 10 + 100)) $((size / 2 + 100)))
    if [[ $suffix != tar ]]; then cuts+=($((size - 4))); fi
    for cut in "${cuts[@]}"; do
        head -c "$cut" "plain.$suffix" >"cut.$suffix"
        run zncctl import "cut.$suffix" "$layout:second"
        check "the first $cut bytes of plain.$suffix are refused" test "$status/$out" = 1/
    done
done
as_before 'archives that end too early'

# Documents and names.
quietly zncctl import plain.tar ./big
python3 - <<'PYTHON'
import io, tarfile
with open("big/index.json", "a", encoding="ascii") as file:
    file.write(" " * (5 << 20))
with tarfile.open("deep.tar", "w", format=tarfile.PAX_FORMAT) as archive:
    archive.addfile(tarfile.TarInfo("d/" * 1000 + "f"))
with tarfile.open("many.tar", "w") as archive:
    for number in range(100000):
        archive.addfile(tarfile.TarInfo(f"d{number % 100}/file{number}"))
with tarfile.open("name.tar", "w", format=tarfile.PAX_FORMAT) as archive:
    archive.addfile(tarfile.TarInfo("n" * (8 << 20)))
PYTHON
refuses --max-json big
refuses --max-depth deep.tar
run zncctl import name.tar "$layout:second"
check 'a name of 8 MiB is refused' test "$status/$out" = 1/
check 'the error for the long name is one short line' test "$(wc -l <"$work/err")" = 1 -a "$(wc -c <"$work/err")" -lt 1000
as_before 'a long name'

# peak COMMAND...: prints the peak memory of the command or one of its processes, in MiB.
peak() {
    python3 -c 'import resource, subprocess, sys
done = subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss >> 10 if done.returncode == 0 else 9999)' "$@"
}
if [[ -z ${ZNC_SANITIZED-} ]]; then
    mkdir zeros && truncate -s 256M zeros/file
    tar -C zeros -cf - . | gzip -1 >zeros.tar.gz
    refuses --max-bytes zeros.tar.gz --max-bytes 200000000
    check 'much data needs little memory' test "$(peak "$ZNCCTL" import zeros.tar.gz ./zeros.layout)" -lt 100
    check 'many files need little memory' test "$(peak "$ZNCCTL" import many.tar ./many.layout)" -lt 150
    rm -rf zeros* many.layout
else
    echo 'skipped: memory under a sanitizer'
fi

# Full disks.
mkdir full
mount -t tmpfs -o size=64k none full
head -c 1M /dev/urandom >plain/random
run env TMPDIR="$work/full" "$ZNCCTL" import plain "$layout:second"
check 'no room for what was read' test "$status/$out" = 1/
check 'a full disk for temporary files is reported' grep -q 'No space left on device' "$work/err"
as_before 'no room for what was read'
check 'no temporary file is left' test -z "$(ls -A full)"
cp -a "$layout/." full
here=$layout
layout=$work/full
before=$(state_of full)
run zncctl import plain "$layout:second"
check 'no room for the new layer' test "$status/$out" = 1/
check 'a full disk for the layout is reported' grep -q 'No space left on device' "$work/err"
as_before 'no room for the new layer'
layout=$here
umount full
before=$(state_of "$layout")

# An import that is killed while it reads.
mkfifo pipe
"$ZNCCTL" import - "$layout:second" <pipe >killed.out 2>&1 &
import=$!
exec 7>pipe
head -c 20000 plain.tar >&7
reads() {
    read -r reader <"/proc/$import/task/$import/children"
    grep -q '^NoNewPrivs:.*1$' "/proc/$reader/status" && grep -q '^Uid:.*65534$' "/proc/$reader/status"
}
eventually reads
check 'a worker process reads as nobody without a way back' reads
check 'the root of the worker is empty' test -z "$(ls -A "/proc/$reader/root/")"
check 'the worker has no capabilities' grep -q '^CapPrm:.*0000000000000000$' "/proc/$reader/status"
kill -KILL "$import"
wait "$import" 2>/dev/null
gone() { ! kill -0 "$reader"; }
eventually gone
check 'the worker ends with its parent' gone
exec 7>&-
check 'a killed import leaves its lock, which does not block others' rm "$layout/.zncctl-import-lock"
as_before 'a killed import, but for that'

# Invalid arguments.
for words in '--max-entries 0' '--max-bytes much' '--hardlinks maybe' '--platform linux' '--devices'; do
    # shellcheck disable=SC2086
    run zncctl import plain.tar "$layout:second" $words
    check "$words is a usage error" test "$status/$out" = 64/
done
run zncctl import plain.tar
check 'an import without a target is a usage error' test "$status/$out" = 64/
run zncctl import none.tar "$layout:second"
check 'a source that is not there is an error' test "$status/$out" = 2/
check 'the message names the missing source' grep -q 'none.tar: No such file or directory' "$work/err"
as_before 'a source that is not there'

# Several imports at the same time.
pids=()
for i in 1 2 3 4; do
    "$ZNCCTL" import -q plain "$layout:same$i" 2>/dev/null &
    pids+=($!)
done
failed_imports=0
for pid in "${pids[@]}"; do wait "$pid" || failed_imports=$((failed_imports + 1)); done
check 'imports into one layout wait for each other' test "$failed_imports/$(zncctl image ls -q "$layout" |
    grep -c same)" = 0/4
run zncctl image check "$layout"
check 'both imports into one layout succeed' test "$status" = 0

cd / || exit 1
finish
