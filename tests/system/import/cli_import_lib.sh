# cli_import_lib.sh - sourced by the cli_import*.sh tests: runs an import, and compares the unpacked result
# with the tree that another tool made from the same source.
#
# Temporary files of the import go to $work/spool, so that any file left there is detected.
# shellcheck shell=bash disable=SC2034
# shellcheck source=../cli/cli_lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/../cli/cli_lib.sh"

tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export TMPDIR=$work/spool LC_ALL=C.UTF-8
mkdir "$TMPDIR"
layout=$work/imported
number=0

tree() { python3 "$tests/cli_import_tree.py" "$@"; }
quietly() { "$@" >"$work/tool.log" 2>&1 || { cat "$work/tool.log" && return 1; }; }

# The root path in a bundle's configuration.
root_of() {
    python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["root"]["path"])' "$1/config.json"
}

# system_of LAYOUT TAG
system_of() {
    zncctl image ls -f json "$1" | python3 -c 'import json, sys
print(*(i["os"] for i in json.load(sys.stdin) if i["tag"] == sys.argv[1]))' "$2"
}

# unpack_to BUNDLE [OPTION...]: unpacks image $tag of $layout into a new store; sets root.
unpack_to() {
    local bundle=$1
    shift
    export ZNC_BASE=$bundle.store
    run zncctl unpack --os "$(system_of "$layout" "$tag")" --tag "$tag" --progress none "$@" "$layout" \
        "$bundle"
    root=none
    if [[ $status -eq 0 ]]; then root=$(root_of "$bundle"); fi
}

drop_bundle() {
    if mountpoint -q "$root"; then umount "$root" && rmdir "$root"; fi
    rm -rf "$1" "$1.store"
}

# imports NAME SOURCE [OPTION...]: imports a new image into $layout; sets tag and digest.
imports() {
    local name=$1
    shift
    number=$((number + 1))
    tag=image$number
    rm -f "$work/report"
    run zncctl import --tag "$tag" --report "$work/report" "$@" "$layout"
    digest=$out
    check "$name: it is imported" test "$status/${out%%:*}" = 0/sha256
    check "$name: no temporary file stays" test -z "$(ls -A "$TMPDIR")"
}

# takes NAME: checks that the library accepts all of the last imported image, except mode bits and owners,
# which layers contain but the library never sets.
takes() {
    run zncctl image check "$layout"
    out=$(awk -v tag="$tag" '/^[^ ]/ { mine = $1 == tag } mine' "$work/out")
    check "$1: image check takes it" grep -Eq '^[^ ].*: taken( with losses)?$' <<<"$out"
    check "$1: all of it" not grep -Eqv '^[^ ]|^  asks for |: (set-id or sticky bit|owner other than root): dropped' \
        <<<"$out"
}

# same NAME EXPECTED [COMPARE-OPTION...]: checks that the image, unpacked in each way, equals this tree.
ways=(layered flatten)
same() {
    local name=$1 expected=$2 how
    shift 2
    takes "$name"
    for how in "${ways[@]}"; do
        if [[ $how == layered ]]; then
            unpack_to "$work/bundle"
        else
            unpack_to "$work/bundle" --flatten
        fi
        check "$name: unpacked ($how)" test "$status" = 0
        check "$name: the tree is that of the other tool ($how)" \
            "$tests/cli_import_compare.py" "$@" "$work/report" "$expected" "$root"
        drop_bundle "$work/bundle"
    done
}

# losses WORD: prints the number of losses of this kind in the last report; "" for all kinds.
losses() {
    python3 -c 'import json, sys
report = json.load(open(sys.argv[1]))
print(report["counts"].get(sys.argv[2], 0) if sys.argv[2] else report["losses"])' "$work/report" "$1"
}

# Lists the names and contents of a layout's files, except its lock.
state_of() {
    (cd "$1" && find . -type f ! -name '*.lock' ! -name .lock -exec sha256sum {} + | sort)
}
