#!/usr/bin/env bash
# Tests of the networks of containers: none, host and pasta. The sandbox has a network namespace of its
# own, which gets a route to another one that stands for the world outside.
# shellcheck source=cli_lib.sh disable=SC2317
. "$(dirname "$0")/cli_lib.sh"
need busybox
need umoci
need ip
need pasta
[[ -c /dev/net/tun ]] || { printf 'skipped: there is no /dev/net/tun\n' && exit 77; }
unset ZNCCTL_NETWORK
start_daemon

# image TAG SHELL-COMMAND: an image that runs the command.
image() {
    umoci config --image "$work/layout:base" --tag "$1" --config.cmd "$2" >"$work/umoci.log" 2>&1 ||
        cat "$work/umoci.log"
}
make_layout() {
    umoci init --layout "$work/layout"
    umoci new --image "$work/layout:latest"
    mkdir -p "$work"/tree/{bin,proc,dev,sys,tmp,etc}
    cp "$(command -v busybox)" "$work/tree/bin/busybox"
    for applet in sh sleep cat head ip nc hostname timeout; do
        ln -sf busybox "$work/tree/bin/$applet"
    done
    echo 'of the image' >"$work/tree/etc/hosts"
    ln -s ../run/nothing/resolv.conf "$work/tree/etc/resolv.conf"
    add_layer "$work/layout" "$work/tree"
    umoci config --image "$work/layout:latest" --tag base --os linux --architecture "$architecture" \
        --config.workingdir / --config.env PATH=/bin --clear=config.cmd \
        --config.entrypoint /bin/sh --config.entrypoint -c
}
make_layout >"$work/umoci.log" 2>&1 || cat "$work/umoci.log"

# The world outside: another network namespace, with the address 192.0.2.1.
unshare -n sleep 600 &
outside=$!
server=
# shellcheck disable=SC2086
trap 'kill "$outside" $server 2>/dev/null' EXIT
in_outside() { nsenter -t "$outside" -n "$@"; }
other_network() { [[ $(readlink "/proc/$outside/ns/net") != $(readlink /proc/self/ns/net) ]]; }
eventually other_network
ip link set lo up
ip link add znc0 type veth peer name znc1
ip link set znc1 netns "$outside"
ip address add 192.0.2.2/24 dev znc0
ip link set znc0 up
in_outside ip address add 192.0.2.1/24 dev znc1
in_outside ip link set znc1 up
in_outside ip link set lo up
# A name server on the loopback interface, as many hosts have, that does not exist.
printf 'search example.org\nnameserver 127.0.0.53\n' >"$work/resolv.conf"
mount --bind "$work/resolv.conf" "$(realpath /etc/resolv.conf)"

zrun() { run zncctl run --os linux --progress none "$@"; }
listens() { ss -Hltn "sport = :$1" | grep -q .; }
receives() { ss -Hlun "sport = :$1" | grep -q .; }
closed() { ! listens "$1"; }
# Prints the processes of pasta in the network namespace of this test.
pastas() { pgrep --ns $$ --nslist net -u 65534 -f '^pasta --foreground'; }
no_pasta() { ! pastas >"$work/pastas"; }
# Whether the first line that the server at ADDRESS PORT sends is TEXT. Old versions of pasta repeat data
# and lose the end of connections that are closed at once.
answers() { [[ $(busybox timeout 2 busybox nc "$1" "$2" </dev/null | head -n 1) == "$3" ]]; }
no_container() { [[ -z $(zncctl list -q) ]]; }
no_record() { [[ -z $(ls -A /run/zarnel/containers) ]]; }
says_in_error() { grep -qF -- "$1" "$work/err"; }

# --- arguments
for port in 80 80:x :80 0:80 80:0 65536:80 1:2:3 256.1.1.1:80:80 '[::1:80:80' ::1:80:80 80:80/sctp; do
    zrun --rm --network pasta -p "$port" "$work/layout:base"
    fails_with "--publish $port is refused" 64 "--publish is [IP:]HOSTPORT:PORT[/udp], not '$port'"
done
zrun --rm --network none -p 8080:80 "$work/layout:base"
fails_with 'ports need pasta' 64 "--publish needs '--network pasta'"
zrun --rm --network bridge "$work/layout:base"
fails_with 'an unknown network is refused' 64 "--network is \"none\", \"host\" or \"pasta\", not 'bridge'"
ZNCCTL_NETWORK=bridge run zncctl run --rm --os linux "$work/layout:base"
fails_with 'also in the environment' 64 "ZNCCTL_NETWORK is \"none\", \"host\" or \"pasta\", not 'bridge'"

# --- none
image interfaces 'ip -o link | cut -d: -f2; cat /etc/hosts /etc/hostname; hostname'
zrun --rm --name alone --network none "$work/layout:interfaces"
expect 'without a network a container has a loopback interface only, and its name' 0 " lo
127.0.0.1 localhost alone
::1 localhost ip6-localhost ip6-loopback alone
alone
alone" ''
check 'the files of the image stay' grep -qx 'of the image' "$ZNC_BASE"/layers/*/etc/hosts
ZNCCTL_NETWORK=none run zncctl run --rm --name alone --os linux "$work/layout:interfaces"
check 'ZNCCTL_NETWORK is the default' test "$status/${out%%$'\n'*}" = '0/ lo'

# --- pasta
zrun --rm "$work/layout:interfaces"
check 'a machine without a route has no network for pasta' test "$status/$out" = 125/
check 'the hint names --network none' says_in_error '--network none'
check 'nothing is left of the container' no_container
check 'no record of the container is left' no_record
ip route add default via 192.0.2.1

image ask 'cat /etc/resolv.conf; timeout 5 nc 192.0.2.1 9000 </dev/null | head -n 1'
in_outside busybox nc -l -p 9000 -e sh -c 'echo from outside; cat' &
server=$!
served() { in_outside ss -Hltn 'sport = :9000' | grep -q .; }
eventually served
zrun --rm --name asking "$work/layout:ask"
# The container's shell reports a connection whose end was lost.
check 'a container reaches the world outside through pasta' test "$status/$out" = '0/search example.org
nameserver 169.254.1.1
from outside'
check 'nothing of pasta is left afterwards' eventually no_pasta
check 'no record is left after pasta has ended' no_record

image serve "exec nc -ll -p 80 -e echo inside"
zrun --name server -d -p 127.0.0.1:8080:80 -p 8081:80 -p 8080:80/udp "$work/layout:serve"
expect 'a container is started with published ports' 0 server ''
check 'the port is forwarded' eventually answers 127.0.0.1 8080 inside
check 'each published port is forwarded' eventually answers 127.0.0.1 8081 inside
check 'a port with an address is open at that address only' test \
    "$(ss -Hltn 'sport = :8080' | awk '{ print $4 }')" = 127.0.0.1:8080
check 'UDP ports are forwarded as such' receives 8080
check 'pasta runs as a user of its own' test "$(pastas | wc -l)" = 1
check 'pasta has no other capabilities than it needs' grep -q '^CapEff:.*0000200400$' \
    "/proc/$(pastas)/status"
zrun --name second -d -p 127.0.0.1:8080:80 "$work/layout:serve"
check 'a port that is taken is an error' test "$status/$out" = 125/
check 'the message names the port' says_in_error 127.0.0.1/8080:80
check 'the first container still serves its port' eventually answers 127.0.0.1 8080 inside
image peer 'timeout 5 nc 192.0.2.2 8081 </dev/null'
zrun --rm "$work/layout:peer"
check 'containers reach each other by published ports only' test "$status/$out" != 0/inside
run zncctl stop -t 1 server
check 'stop closes the ports' closed 8080
run zncctl delete server
check 'a stopped container is deleted' test "$status" = 0

zrun --name server -d -p 127.0.0.1:8080:80 "$work/layout:serve"
eventually listens 8080
run zncctl delete -f server
check 'the port is closed when delete returns' closed 8080

# The program is not forwarded any signal: zncctl is killed.
"$ZNCCTL" run --rm --name orphan --os linux -p 127.0.0.1:8080:80 "$work/layout:serve" </dev/null >/dev/null 2>&1 &
client=$!
check 'a port is served in the foreground' eventually answers 127.0.0.1 8080 inside
kill -KILL "$client"
wait "$client" 2>/dev/null
check 'a container survives its zncctl, with its network' eventually answers 127.0.0.1 8080 inside
run zncctl delete -f orphan
check 'the container without zncctl can be deleted' test "$status" = 0
check 'its port is closed after the deletion' closed 8080

zrun --name server -d -p 127.0.0.1:8080:80 "$work/layout:serve"
eventually listens 8080
stop_daemon KILL
check 'the port is closed after the end of a killed daemon' eventually closed 8080
check 'no pasta is left' eventually no_pasta
start_daemon

ip -6 address add 2001:db8::2/64 dev znc0 nodad
ip -6 route add default via 2001:db8::1
zrun --name server -d -p '[::1]:8080:80' "$work/layout:serve"
check 'an IPv6 address can be given' test "$(ss -Hltn 'sport = :8080' | awk '{ print $4 }')" = '[::1]:8080'
kill -KILL "$(pastas)"
run zncctl delete -f server
check 'a container whose pasta was killed can be deleted' test "$status" = 0

# --- host
image addresses 'ip -o -4 address show dev znc0 | wc -l; cat /etc/resolv.conf'
zrun --rm --network host "$work/layout:addresses"
check 'the host network is refused' test "$status/$out" = 125/
check 'the hint names --allow-privileged' says_in_error '--allow-privileged'
stop_daemon
start_daemon --allow-privileged
zrun --rm --network host "$work/layout:addresses"
expect 'with --allow-privileged a container has the network of the host' 0 '1
search example.org
nameserver 127.0.0.53' ''

# --- bundles
make_bundle "$work/bundle" /bin/sh -c 'exec nc -ll -p 80 -e echo bundle'
cp "$work/bundle/config.json" "$work/before.json"
ln -sf busybox "$work/bundle/rootfs/bin/nc"
run zncctl create --network pasta -p 127.0.0.1:8080:80 created "$work/bundle"
check 'create connects a container' test "$status" = 0
run zncctl start created
check 'the container serves its port when it is started' eventually answers 127.0.0.1 8080 bundle
check 'the bundle has not changed' cmp "$work/bundle/config.json" "$work/before.json"
check 'the root of the bundle has not changed' test ! -e "$work/bundle/rootfs/etc"
run zncctl delete -f created
check 'the port is closed when it is deleted' closed 8080
run zncctl run --name bundled -b "$work/bundle" -d
check 'a bundle has no network unless it is asked for' eventually no_pasta
run zncctl delete -f bundled

# --- without pasta
mount --bind /dev/null "$(realpath "$(command -v pasta)")"
zrun --rm "$work/layout:interfaces"
fails_with 'without pasta an error names the other networks' 125 \
    "the network needs /usr/bin/pasta, which is not installed (Debian package passt); '--network none' runs the container without a network, '--network host' with the host's"
zrun --rm --name alone --network none "$work/layout:interfaces"
check 'a container without a network can be run' test "$status" = 0
check 'no bundle of a container is left' test -z "$(ls -d "$ZNC_BASE"/bundles/of-* 2>/dev/null)"
finish
