#!/usr/bin/env bash
# hardening_test.sh LIBRARY ZNCD ZNCCTL IMPORT HELPER STATIC-LIBRARIES FORTIFIED - what the built files
# are protected with, read from the files themselves. STATIC-LIBRARIES: those that the library is made
# of, separated by ":". FORTIFIED: 1 in optimised builds, which alone have the checked C functions.
#
# The helper runs alone in a container's namespaces, static and without a C library. A stack
# protector, checked functions and relocation are things a C library sets up; instead it has no
# memory that can be both written and run, nothing to relocate, no interpreter and no dependency.
# shellcheck disable=SC2317 # what is called by way of expect
set -euo pipefail
export LC_ALL=C
if [[ $# -ne 7 ]]; then
    printf 'usage: hardening_test.sh LIBRARY ZNCD ZNCCTL IMPORT HELPER STATIC-LIBRARIES FORTIFIED\n' >&2
    exit 2
fi
library=$1 daemon=$2 client=$3 import=$4 helper=$5 fortified=$7
IFS=: read -ra parts <<<"$6"
failed=0

# expect TEXT COMMAND...: it succeeds.
expect() {
    local text=$1
    shift
    if "$@"; then
        printf 'ok - %s\n' "$text"
    else
        printf 'not ok - %s\n' "$text"
        failed=1
    fi
}
refuse() { ! "$@"; }

segments() { readelf --program-headers --wide "$1"; }
dynamic() { readelf --dynamic --wide "$1"; }
has() { grep -qE -- "$2" <<<"$1"; }

# What goes for every file that the kernel or the loader maps.
check_memory() {
    local file=$1 name=${1##*/}
    expect "$name: the stack is not executable" has "$(segments "$file")" 'GNU_STACK.* RW +0x'
    expect "$name: it has code" has "$(segments "$file")" 'LOAD.* R E 0x'
    expect "$name: nothing is writable and executable" refuse has "$(segments "$file")" 'LOAD.* RWE 0x'
}

check_linked() {
    local file=$1 name=${1##*/} imports
    imports=$(nm --dynamic --undefined-only "$file")
    check_memory "$file"
    expect "$name: position independent" has "$(readelf --file-header --wide "$file")" 'Type: +DYN'
    expect "$name: relocated data becomes read-only" has "$(segments "$file")" 'GNU_RELRO'
    expect "$name: all symbols are bound at the start" has "$(dynamic "$file")" 'FLAGS_1.*\<NOW\>'
    expect "$name: code is not relocated" refuse has "$(dynamic "$file")" 'TEXTREL'
    expect "$name: stacks are protected" has "$imports" '__stack_chk_fail'
    if [[ $fortified -eq 1 ]]; then
        expect "$name: C functions are checked" has "$imports" '__(mem|str|v?s?n?f?print)[a-z]*_chk'
    fi
}

check_program() {
    check_linked "$1"
    expect "${1##*/}: a position-independent program" has "$(dynamic "$1")" 'FLAGS_1.*\<PIE\>'
    expect "${1##*/}: addresses are the loader's to choose" has "$(segments "$1")" 'INTERP'
}

# Whether every object in an archive is marked for control-flow enforcement. The linked files are
# marked only where the C library's start files are, which here they may not be.
all_marked() {
    local objects marked
    objects=$(ar t "$1" | wc -l)
    marked=$(readelf --notes --wide "$1" | grep -c 'IBT, SHSTK')
    [[ $objects -gt 0 && $marked -eq $objects ]]
}

# Every exported function begins with the landing instruction of indirect branches.
entries_land() {
    local exported landing
    exported=$(nm --dynamic --defined-only "$1" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' | sort -u)
    landing=$(objdump --disassemble --no-show-raw-insn "$1" | awk '
        /^[0-9a-f]+ <.*>:$/ { name = $2; gsub(/^<|(@@.*)?>:$/, "", name); next }
        name != "" { if ($2 == "endbr64") print name; name = "" }' | sort -u)
    [[ -n $exported && -z $(comm -23 <(printf '%s\n' "$exported") <(printf '%s\n' "$landing")) ]]
}

# Large frames touch each page of their stack on the way down.
probes_stack() {
    local probe='(orq|movq) +[$]0x0,[(]%rsp[)]'
    [[ $(objdump --disassemble --no-show-raw-insn "$1" | grep -cE "$probe") -gt 0 ]]
}

check_linked "$library"
check_program "$daemon"
check_program "$client"
check_program "$import"
check_memory "$helper"
expect 'helper: nothing is writable' refuse has "$(segments "$helper")" 'LOAD.* RW '
expect 'helper: no interpreter' refuse has "$(segments "$helper")" 'INTERP'
expect 'helper: no dependency' refuse has "$(dynamic "$helper")" 'NEEDED'
if [[ $(uname -m) == x86_64 ]]; then
    for part in "${parts[@]}"; do
        expect "${part##*/}: marked for control-flow enforcement" all_marked "$part"
    done
    expect "${library##*/}: functions begin with a landing" entries_land "$library"
    expect "${daemon##*/}: large frames are probed" probes_stack "$daemon"
else
    printf 'skipped - control-flow enforcement and stack probes: not looked for on %s\n' "$(uname -m)"
fi
exit "$failed"
