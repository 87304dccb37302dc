#!/usr/bin/env bash
# podman-intro.sh [-w] ZNCCTL ZNCD - runs the commands of an introduction to podman with zncctl: an image is
# pulled from a registry on this machine, run, looked at, stopped and removed. Fails if a command fails, or
# if what is printed differs from docs/podman-intro.md; -w writes that page instead. Ids, times, ports and
# process ids are replaced in both. Needs root, and better a sandbox (see tests/system).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
page=$here/docs/podman-intro.md
write=
[[ ${1-} != -w ]] || { write=yes && shift; }
ZNCCTL=$(realpath "${1:?the zncctl to run}") ZNCD=$(realpath "${2:?the zncd to run}")
for tool in busybox umoci skopeo python3 ip; do
    command -v "$tool" >/dev/null || { printf 'skipped: %s is not installed\n' "$tool" && exit 77; }
done

work=$(mktemp -d /tmp/podman-intro.XXXXXX)
daemon='' registry=''
clean_up() {
    local status=$?
    trap - EXIT
    for process in $registry $daemon; do
        kill "$process"
        wait "$process" || [[ $? = 143 ]] || status=1
    done
    cd / && rm -rf "$work"
    exit "$status"
}
trap clean_up EXIT
cd "$work"
export ZNC_BASE=$work/storage ZNCCTL_NETWORK=none
zncctl() { "$ZNCCTL" "$@"; }
within_10_seconds() {
    local i
    for ((i = 0; i < 200; i++)); do
        "$@" >probe.log 2>&1 && return
        sleep 0.05
    done
    printf '%s: not within 10 seconds\n' "$*" && cat probe.log && exit 1
}

# The image: busybox with a web server and a page. The registry: one that serves any name from a layout.
mkdir -p root/{bin,dev,proc,sys,tmp,etc,www}
cp "$(command -v busybox)" root/bin/busybox
for applet in sh echo cat ls wget httpd uname; do ln -s busybox "root/bin/$applet"; done
echo 'It works!' >root/www/index.html
{
    umoci init --layout layout
    umoci new --image layout:latest
    tar --create --format=ustar --owner=0 --group=0 --mtime=@0 --directory=root --file=root.tar .
    umoci raw add-layer --image layout:latest root.tar
    umoci config --image layout:latest --os linux --architecture "$(dpkg --print-architecture)" \
        --config.env PATH=/bin --config.cmd httpd --config.cmd -f --config.cmd -vv --config.cmd -h --config.cmd /www
} >image.log 2>&1 || { cat image.log && exit 1; }
ip link set lo up
python3 "$here/tests/system/cli/registry.py" layout port &
registry=$!
"$ZNCD" >zncd.log 2>&1 </dev/null &
daemon=$!
within_10_seconds test -s port
within_10_seconds zncctl ping
httpd=127.0.0.1:$(<port)/library/httpd

# What differs from run to run.
unify() {
    sed -E -e "s/127\.0\.0\.1:$(<port)/127.0.0.1:5000/g" -e 's/\r$//' \
        -e 's/\b[0-9a-f]{64}\b/1f6b0c3f…/g' -e 's/\b[0-9a-f]{12}\b/5d2f8c21ab90/g' \
        -e 's/(About )?(an?|[0-9]+) (second|minute|hour)s?\b/2 seconds/g' -e 's/Less than 2 seconds/2 seconds/g' \
        -e 's/  now  /  2 seconds ago  /' \
        -e 's/:[0-9]{5}(:|\]|$)/:40000\1/g' -e 's/[0-9]+\.[0-9]+ MB/1.1 MB/g' \
        -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]*Z?/2026-11-22T13:00:00Z/g' \
        -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]{18}/2026-11-22 13:00:00.000000000/g' \
        -e 's/[0-9]+\.[0-9]+ MiB/1.1 MiB/g' -e 's/([^ ]) {3,}/\1  /g' -e "s|$work|/tmp|g"
}
# Columns of numbers of processes.
unify_top() { awk 'NR > 1 { $1 = 1234; $3 = 1200; $5 = 600 } { print }' | sed 's/  */ /g' | unify; }

transcript=$work/transcript
# step COMMAND: a line as it is typed. It must succeed.
step() {
    local with=unify
    [[ $1 != 'zncctl top'* ]] || with=unify_top
    printf '$ %s\n' "${1//$httpd/127.0.0.1:5000/library/httpd}" >>"$transcript"
    if ! (eval "$1") >output 2>&1 </dev/null; then
        printf 'failed: %s\n' "$1" && cat output && exit 1
    fi
    "$with" <output >>"$transcript"
}
says() { printf '\n%s\n\n' "$1" >>"$transcript"; }
code() { printf '```\n' >>"$transcript"; }
begin() { says "$1" && printf '```console\n' >>"$transcript"; }

begin 'An image is pulled and listed:'
step "zncctl pull -q --tls-verify=false $httpd"
step 'zncctl images'
step "zncctl image inspect $httpd | grep -m1 -o '\"Cmd\"'"
code
begin 'A command runs in a container that is removed when it ends; the image would be fetched now if it were missing:'
step "zncctl run --rm $httpd echo hello"
step "zncctl run --rm $httpd cat /www/index.html"
step "zncctl ps -a -q"
code
begin 'The web server runs in the background:'
step "zncctl run -dt --name web $httpd"
within_10_seconds zncctl exec web wget -q -O - http://127.0.0.1/
step "zncctl ps"
step "zncctl exec web wget -q -O - http://127.0.0.1/"
step "zncctl logs web | awk '/response/ && !shown++'"
step "zncctl inspect web | grep -m1 '\"Id\"'"
step "zncctl top web"
code
begin 'Files are copied in and out, and what changed is listed:'
step "echo 'It was changed.' >index.html"
step "zncctl cp index.html web:/www/"
step "zncctl exec web wget -q -O - http://127.0.0.1/"
step "zncctl cp web:/www/index.html copy.html && cat copy.html"
step "zncctl diff web"
step "zncctl export web | tar -t | grep www"
code
begin 'It is stopped and removed, and so is the image:'
step "zncctl stop -t 1 web"
step "zncctl ps"
step "zncctl ps -a --format '{{.Names}} {{.State}}'"
step "zncctl rm web"
step "zncctl events --since 5m --no-stream --filter container=web --format '{{.Name}} {{.Status}}'"
step "zncctl rmi $httpd"
step 'zncctl images -q'
code

{
    cat <<'TEXT'
# The first commands of podman, with zncctl

What an introduction to podman shows, typed with `zncctl`. `scripts/podman-intro.sh` runs these commands and writes
this page; a test compares them. The image is pulled from a registry on the same machine, without TLS. Ids, times, sizes
and ports are examples. [cli-podman.md](cli-podman.md) lists what differs from podman.
TEXT
    cat "$transcript"
} >page.md
if [[ -n $write ]]; then
    cp page.md "$page"
    printf 'written: %s\n' "$page"
elif diff -u "$page" page.md; then
    printf 'ok - %s commands print what docs/podman-intro.md shows\n' "$(grep -c '^\$ ' page.md)"
else
    printf 'not ok - the page shows something else\n' && exit 1
fi
