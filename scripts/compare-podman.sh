#!/usr/bin/env bash
# compare-podman.sh [ZNCCTL ZNCD] - runs one image under podman and under zncctl, without options, and prints
# what a program observes under each: a table of observations, with the differences marked. As root; installs
# podman if it is missing. Default: the programs in build/release/bin.
# Ends with 1 if a difference is not among those explained in docs/comparison.md.
set -euo pipefail
cd "$(dirname "$0")/.."
zncctl=${1-$PWD/build/release/bin/zncctl} zncd=${2-$PWD/build/release/bin/zncd}
scripts/install-deps.sh compare

work=$(mktemp -d /tmp/compare.XXXXXX)
daemon=
clean_up() {
    local status=$?
    trap - EXIT
    if [[ -n $daemon ]]; then
        kill "$daemon" && wait "$daemon" || status=1
    fi
    "${podman[@]}" rmi -f localhost/observed >/dev/null 2>&1 || status=1
    rm -rf "$work"
    exit "$status"
}
podman=(podman --root "$work/podman" --runroot "$work/podman-run" --storage-driver vfs --cgroup-manager cgroupfs)
# crun refuses a machine with both versions of control groups: hide the second one from podman.
# shellcheck disable=SC2016 # expanded by the inner shell
! mountpoint -q /sys/fs/cgroup/unified ||
    podman=(unshare -m --propagation private sh -c 'umount /sys/fs/cgroup/unified; exec "$@"' sh "${podman[@]}")
trap clean_up EXIT

# ---- the image: busybox, a user with groups, an environment, a working directory
root=$work/root
mkdir -p "$root"/{bin,dev,proc,sys,tmp,etc,srv/app,home/app}
cp /bin/busybox "$root/bin/busybox"
for applet in sh id cat grep hostname ls stat env sort mount mknod chown ifconfig ping nc sleep touch mkdir unshare \
    readlink awk head tr sed wc test umount su dd; do
    ln -sf busybox "$root/bin/$applet"
done
printf 'root:x:0:0::/root:/bin/sh\napp:x:1234:500::/home/app:/bin/sh\n' >"$root/etc/passwd"
printf 'root:x:0:\napps:x:500:\nextra:x:77:app\n' >"$root/etc/group"
chown 1234:500 "$root/srv/app" "$root/home/app"
cp scripts/observe.sh "$root/bin/observe"
chmod 755 "$root/bin/observe"
layout=$work/layout
umoci init --layout "$layout" && umoci new --image "$layout:latest"
umoci insert --image "$layout:latest" "$root" / >/dev/null
for user in '' app; do
    umoci config --image "$layout:latest" --tag "user-${user:-root}" --config.user "$user" \
        --config.env PATH=/bin:/usr/bin --config.env MODE=test --config.workingdir /srv/app \
        --config.cmd /bin/observe
done

# ---- both
export ZNC_BASE=$work/storage
"$zncd" --log-level error &
daemon=$!
for ((i = 0; i < 50; i++)); do
    ! "$zncctl" ping >/dev/null 2>&1 || break
    sleep 0.1
done
# shellcheck disable=SC2016 # these are not variables
explained=$(sed -n 's/^| \(`.*`\) |.*/\1/p' docs/comparison.md | tr -d '`,' | tr ' ' '\n')
unexplained=0
for user in root app; do
    skopeo copy -q "oci:$layout:user-$user" "oci-archive:$work/$user.tar:observed"
    "${podman[@]}" load -q -i "$work/$user.tar" >/dev/null
    "${podman[@]}" run --rm --ulimit nofile=1024:1024 --ulimit nproc=4096:4096 localhost/observed \
        >"$work/podman.$user"
    rm -rf "$work/imported"
    "$zncctl" import --quiet "$work/$user.tar" "$work/imported:latest"
    "$zncctl" run --rm --os linux --progress none "$work/imported" >"$work/zncctl.$user"
    printf '\n%-24s %-34s %-34s\n' "observation ($user)" podman zncctl
    while IFS='	' read -r key theirs ours; do
        note=
        if [[ $theirs != "$ours" ]]; then
            note=' *'
            if ! grep -qx "$key" <<<"$explained"; then
                note=' ***'
                unexplained=$((unexplained + 1))
            fi
        fi
        printf '%-24s %-34.34s %-34.34s%s\n' "$key" "$theirs" "$ours" "$note"
    done < <(join -t '	' <(sort "$work/podman.$user") <(sort "$work/zncctl.$user"))
done
printf '\n%d differences are not explained\n' "$unexplained"
[[ $unexplained -eq 0 ]]
