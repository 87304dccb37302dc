#!/usr/bin/env bash
# rootless_machine.sh - starts the service manager of an ordinary user and runs rootless_machine_user.sh under it. Run
# by scripts/vm-rootless-test.sh in a virtual machine.
set -u
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
useradd --create-home --shell /bin/bash tester
printf 'tester:100000:65536\n' | tee /etc/subuid >/etc/subgid
loginctl enable-linger tester
for ((i = 0; i < 300; i++)); do
    [[ ! -S /run/user/$(id -u tester)/bus ]] || break
    sleep 0.2
done
systemd-run --machine tester@.host --user --quiet --wait --pipe --collect /bin/bash /tests/rootless_machine_user.sh
status=$?
left=$(find /sys/fs/cgroup/user.slice -name 'libpod*')
[[ -z $left ]] || {
    printf 'not ok - groups are left: %s\n' "$left"
    status=1
}
printf 'rootless_machine ended with %d\n' "$status"
