#!/usr/bin/env bash
# cli_import_kill.sh - kills the processes of imports at random system calls. An import that reported success
# must have stored a complete image; no existing image may be damaged; the next import must work. 20 kills;
# 200 with ZNC_TEST_ALL.
# shellcheck source=cli_import_lib.sh disable=SC2317
. "$(dirname "$0")/cli_import_lib.sh"
need strace

cd "$work" || exit 1
tree plain "$work/plain"
tar -C plain -cf plain.tar .
run zncctl import plain.tar "$layout:kept"
kept=$out
check 'there is an image' test "$status/${kept%%:*}" = 0/sha256
strace -f -qq -o calls "$ZNCCTL" import plain.tar "$work/other:image" >out 2>err
digest=$(<out)
most=$(cut -d ' ' -f 1 calls | sort | uniq -c | sort -rn | awk '$1 > 100 { fewest = $1 } END { print fewest + 0 }')
check 'an import makes many calls' test "$most" -gt 100

# images: lists the images of the layout, one per line, and checks that all of them are complete.
images() { zncctl image ls -f json "$layout" | jq -r '.[] | "\(.tag) \(.digest)"' | sort; }
all_whole() { zncctl image check "$layout" >"$work/checked" && not grep -E '^[^ ].*: (refused|damaged)' "$work/checked"; }

wanted=${ZNC_TEST_ALL:+200}
wanted=${wanted:-20}
killed=0 told=0 lost='' damaged='' strange=''
while [[ $killed -lt $wanted && $told -lt $((10 * wanted)) ]]; do
    at=$((RANDOM % most + 1)) status=0
    strace -f -qq -o /dev/null -e inject=all:signal=KILL:when=$at \
        "$ZNCCTL" import -f plain.tar "$layout:image" >out 2>err </dev/null || status=$?
    now=$(images)
    if [[ $status -eq 0 ]]; then
        told=$((told + 1))
        [[ $now == *"image $digest"* ]] || lost+=" $at"
    else
        killed=$((killed + 1))
    fi
    [[ $now == *"kept $kept"* ]] || lost+=" $at"
    if grep -qvxF -e "kept $kept" -e "image $digest" <<<"$now"; then strange+=" $at"; fi
    all_whole || damaged+=" $at"
done
printf '%d imports were killed, %d were done\n' "$killed" "$told"
check 'the expected number of imports was killed' test "$killed" -eq "$wanted"
check 'no image is lost' test -z "$lost"
check 'no other image appears' test -z "$strange"
check 'every image is whole' test -z "$damaged"
run zncctl import -f plain.tar "$layout:image"
check 'the next import succeeds' test "$status/$out" = "0/$digest"
tag=image
unpack_to "$work/bundle" --flatten
check 'the image of the next import can be unpacked' test "$status" = 0
drop_bundle "$work/bundle"
finish
