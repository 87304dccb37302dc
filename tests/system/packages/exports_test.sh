#!/bin/sh
# Tests that the shared library exports exactly the names in the list, which are those of its version script,
# among them all of version 1.0.0, and has the right soname. scripts/abi.sh compares the types, too.
#
# usage: exports_test.sh LIBRARY VERSION-SCRIPT LIST FUNCTIONS-OF-1.0.0
set -eu
export LC_ALL=C

if [ $# -ne 4 ]; then
    echo "usage: exports_test.sh LIBRARY VERSION-SCRIPT LIST FUNCTIONS-OF-1.0.0" >&2
    exit 2
fi
library=$1 script=$2 list=$3 old=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A symbol of type A is the name of the version.
nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort >"$work/exported"
sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]*\);$/\1/p' "$script" | sort >"$work/script"
sort "$list" >"$work/list"
sed -n "s/.*<elf-symbol name='\([A-Za-z0-9_]*\)'.*/\1/p" "$old" | sort >"$work/old"

status=0
for side in exported script; do
    if [ ! -s "$work/$side" ]; then
        echo "FAIL: no names found: $side"
        status=1
    elif ! diff -u "$work/list" "$work/$side"; then
        echo "FAIL: the list and the names $side differ"
        status=1
    fi
done

if [ ! -s "$work/old" ]; then
    echo "FAIL: no names found: 1.0.0"
    status=1
fi
gone=$(comm -23 "$work/old" "$work/exported")
if [ -n "$gone" ]; then
    echo "FAIL: functions of 1.0.0 are gone: $gone"
    status=1
fi

soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
if [ "$soname" != libzncontainer.so.1 ]; then
    echo "FAIL: soname is '$soname'"
    status=1
fi
[ "$status" -eq 0 ] && echo "$(wc -l <"$work/list") exports, $soname"
exit "$status"
