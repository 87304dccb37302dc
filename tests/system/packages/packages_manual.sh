#!/usr/bin/env bash
# packages_manual.sh - checks that the manual pages are well-formed and complete, and that their prototypes,
# codes and options are correct.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

cd "$ZNC_BUILD_DIR/man"
pages=()
for page in *.[1-8]; do
    [[ -L $page ]] || pages+=("$page")
done

# scdoc generates empty paragraphs; there must be no other warnings.
lints() {
    local findings
    findings=$(mandoc -T lint -W warning "$1" | grep -v 'WARNING: skipping paragraph macro') || return 0
    printf '%s\n' "$findings"
    return 1
}
for page in "${pages[@]}"; do
    check "$page is well-formed" lints "$page"
done

text() { mandoc -T ascii -O width=500 "$1" | sed $'s/.\b//g'; }
for page in "${pages[@]}"; do text "$page" >"$work/$page"; done

every_function() {
    local name missing=0
    while read -r name; do
        [[ -e $name.3 ]] || { printf 'no page: %s\n' "$name" && missing=1; }
    done <"$source_dir/tests/data/exports.txt"
    return $missing
}
check 'every function of the library has a page' every_function

every_code() {
    local name missing=0
    while read -r name; do
        grep -q "\<$name\>" "$work/zncErrors.3" || { printf 'not said: %s\n' "$name" && missing=1; }
    done < <(sed -n 's/^#define \(S_znc*[A-Za-z]*_[A-Z_]*\) .*/\1/p' \
        "$source_dir/container/runtime/include/zncontainer.h")
    return $missing
}
check 'every error code is in zncErrors(3)' every_code

check 'prototypes are those of the headers' python3 "$here/packages_prototypes.py" \
    "$source_dir/container/runtime/include" "${pages[@]/#/$work/}"

# References to pages of this project, which begin with "znc".
references() {
    local name section missing=0
    while IFS='()' read -r name section _; do
        [[ -e $name.$section ]] || { printf 'no page: %s(%s)\n' "$name" "$section" && missing=1; }
    done < <(grep -ohE '\<znc[A-Za-z-]*\([1-8]\)' "${pages[@]/#/$work/}" | sort -u)
    return $missing
}
check 'pages that are referred to exist' references

# options PROGRAM PAGE: checks that the page contains the long options of the program's help.
options() {
    local option missing=0 options
    options=$("$ZNC_BUILD_DIR/bin/$1" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u)
    [[ -n $options ]] || return
    for option in $options; do
        grep -qe "$option\>" "$work/$2" || { printf 'not said: %s\n' "$option" && missing=1; }
    done
    return $missing
}
check 'the options of zncd are in zncd(8)' options zncd zncd.8
check 'the options of zncrun are in zncrun(1)' options zncrun zncrun.1
check 'the options of zncctl are in zncctl(1)' options zncctl zncctl.1

# The help, the manual and the completions of zncctl must be consistent.
zncctl=$ZNC_BUILD_DIR/bin/zncctl
section() { sed -n "/^$2\$/,/^[A-Z]/{/^[A-Z]/d;p}" "$work/$1.1"; }
words() { tr -s ' \n' ' ' | sed 's/^ //; s/ $//'; }
# The usage line has "[OPTION...]" where the page lists the options, which same_options compares.
same_synopsis() {
    diff <("$zncctl" "${@:2}" --help | sed -n '1s/^usage: //p' | sed 's/ \[OPTION\.\.\.\]//' | words) \
        <(section "$1" SYNOPSIS | sed '/^ *Other names/d' | tr '\n' ' ' |
            sed -E 's/\[-[^][]*(\[[^][]*\][^][]*)*\]//g' | words)
}
long_options() { grep -oE -- '^ *(-[a-z], )?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort; }
same_options() {
    diff <("$zncctl" "${@:2}" --help | long_options) <(section "$1" OPTIONS | long_options)
}
completed() {
    local file option
    for file in zncctl _zncctl zncctl.fish; do
        for option in $("$zncctl" "$@" --help | long_options); do
            grep -qe "${option#--}" "$ZNC_BUILD_DIR/completions/$file" || {
                printf 'not in %s: %s\n' "$file" "$option"
                return 1
            }
        done
    done
}
commands() { "$zncctl" --help | sed -n '/^commands:/,/^$/s/^  \([a-z]*\( [a-z]*\)*\)  .*/\1/p'; }
count=0
while read -ra command; do
    page=$(IFS=- && printf 'zncctl-%s' "${command[*]}")
    check "$page(1) has the synopsis of the program" same_synopsis "$page" "${command[@]}"
    check "$page(1) has the options of the program" same_options "$page" "${command[@]}"
    check "the completions have the options of ${command[*]}" completed "${command[@]}"
    check "zncctl(1) names $page(1)" grep -q "^ *$page(1)\$" "$work/zncctl.1"
    count=$((count + 1))
done < <(commands)
pages_of_commands() { find . -name 'zncctl-*.1' | wc -l; }
check 'every page belongs to an existing command' prints "$count" pages_of_commands
finish
