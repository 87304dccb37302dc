#!/usr/bin/env bash
# packages_install.sh - installs the packages in a clean Debian system without network, uses them, reinstalls
# them and removes them without a trace. With ZNC_DEBS, those in that directory, which must store where packages
# do. Needs a sandbox, packages_build.sh and packages_fixture.sh.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

ZNC_TEST_CACHE=${ZNC_TEST_CACHE:-${ZNC_TEST_CACHE_DEFAULT:?the directory of the images}}
root=$work/root
daemon=

# All writes to the system go to a tmpfs.
mkdir -p "$root" "$work/writes"
mount -t tmpfs writes "$work/writes"
mkdir "$work/writes/upper" "$work/writes/work"
mount -t overlay clean -o "lowerdir=$ZNC_TEST_CACHE/packages-root" \
    -o "upperdir=$work/writes/upper,workdir=$work/writes/work" "$root"
clean_up() {
    if [[ -n $daemon ]]; then kill -KILL "$daemon" && wait "$daemon"; fi
    umount -l "$root" "$work/writes"
    rm -rf "$work"
} 2>/dev/null
trap clean_up EXIT
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount -t tmpfs run "$root/run"
mkdir -p "$root/debs" "$root/storage"
mount -t tmpfs storage "$root/storage" # an overlay cannot be a storage base
chmod 0755 "$root/run" "$root/storage"
mount --bind "$debs" "$root/debs"

variables=(PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive ZNCCTL_NETWORK=none)
inside() { env -i "${variables[@]}" chroot "$root" "$@"; }
apt() { inside apt-get -qy --no-install-recommends "$@"; }
install_package() { apt install /debs/"$1"_"$(field "$1" Version)"_"$(field "$1" Architecture)".deb; }
field() { dpkg-deb --field "$debs/$1"_*.deb "$2"; }

# Lists the files of the system except those that installing any package changes: the records of apt and dpkg,
# the loader's cache, and mount points.
contents() {
    find "$root" -xdev -mindepth 1 -printf '/%P %y %m %l\n' | sort |
        grep -vE '^/(var/(lib/(dpkg|apt|systemd)|log|cache)|etc/ld\.so\.cache|debs|storage|run)(/| )'
}
contents >"$work/before"

check 'the library is installed' install_package libzncontainer1
loader_finds() { inside ldconfig -p | grep "$1 " >/dev/null; }
check 'the loader finds it' loader_finds libzncontainer.so.1
check 'the development files are installed' install_package libzncontainer-dev
check 'the headers are there' test -e "$root/usr/include/zncprotocol.h"
check 'the functions have manual pages' inside sh -c 'gunzip -c /usr/share/man/man3/zncStart.3.gz'
check 'the tools are installed' install_package zncontainer-tools
without_import() {
    not inside zncctl import /srv/tree /srv/new 2>"$work/said" && grep 'zncontainer-import' "$work/said"
}
check 'without its package import says what to install' without_import
check 'the import is installed' install_package zncontainer-import
check 'the runtime for engines is installed' install_package zncontainer-oci
check 'zncrun runs' inside zncrun --version
check 'the packed files are installed' \
    inside dpkg --verify libzncontainer1 libzncontainer-dev zncontainer-tools zncontainer-import zncontainer-oci
check 'zncctl runs' inside zncctl --help
base=/var/lib/zncontainer
stores_at() { inside zncctl info --format json | jq -r .storage; }
if [[ -n ${ZNC_DEBS-} || $(stores_at) == "$base" ]]; then
    check 'the programs store where packages do' prints "$base" stores_at
    install -d -m 0700 "$root$base" # asking may have made it
    mount --bind "$root/storage" "$root$base"
else
    printf 'skipped - the programs store where packages do: this build has other options\n'
    rm -rf "$root/ram0" # asking makes it
    base=/storage
    variables+=(ZNC_BASE=/storage)
fi
check 'zncd runs' inside zncd --version
check 'the daemon is enabled' \
    test -L "$root/etc/systemd/system/multi-user.target.wants/zncd.service"
# shellcheck disable=SC2016 # systemd expands it
check 'the unit names the daemon where it is' grep -qx 'ExecStart=/usr/sbin/zncd \$ZNCD_OPTIONS' \
    "$root/lib/systemd/system/zncd.service"
# Against the units of the host, which may lack the daemon.
unit_problems() {
    sed 's|^ExecStart=.*|ExecStart=/bin/true|' "$root/lib/systemd/system/zncd.service" \
        >"$work/zncd.service" && systemd-analyze verify --man=no "$work/zncd.service" 2>&1
}
if command -v systemd-analyze >/dev/null; then
    check 'the unit is right' prints '' unit_problems
else
    printf 'skipped - the unit is right: no systemd-analyze\n'
fi

# A new user's steps from an image to a detached container and back. Commands and output are shown.
show() {
    printf '# %s\n' "$*"
    inside "$@"
}
make_image() {
    mkdir -p "$work/image/bin" "$work/image/tmp" "$root/srv"
    cp /bin/busybox "$work/image/bin/busybox"
    cat >"$work/image/bin/hello" <<'SH'
#!/bin/busybox sh
echo "hello from $(hostname)"
exec /bin/busybox sleep 1000
SH
    chmod +x "$work/image/bin/hello"
    ln -s busybox "$work/image/bin/hostname"
    tar --format=ustar --owner=0 --group=0 -C "$work/image" -cf "$work/layer.tar" . &&
        umoci init --layout "$root/srv/image" && umoci new --image "$root/srv/image:latest" &&
        umoci raw add-layer --image "$root/srv/image:latest" "$work/layer.tar" &&
        umoci config --image "$root/srv/image:latest" --os linux --architecture amd64 \
            --config.workingdir / --config.env PATH=/bin --config.cmd /bin/hello
}
check 'an image is made' make_image

printf '# zncd &\n'
# With no_new_privs, as in the unit.
env -i "${variables[@]}" chroot "$root" setpriv --no-new-privs zncd >"$work/zncd.log" 2>&1 </dev/null &
daemon=$!
check 'the daemon answers' eventually inside zncctl ping
shown() {
    local text=$1
    shift
    show "$@" >"$work/shown" 2>&1
    local status=$?
    [[ $status -eq 0 ]] && grep -qxE -- "$text" "$work/shown"
}
step() {
    local name=$1
    shift
    check "$name" shown "$@"
    sed '/^layer [0-9]*\/[0-9]/d' "$work/shown" # progress
}
logged() { inside zncctl logs web | grep 'hello from web' >/dev/null; }
step 'an image is run in the background' web zncctl run --name web --detach --os linux /srv/image
check 'the output of the container is in the log' eventually logged
step 'the log is shown' 'hello from web' zncctl logs web
step 'it is listed' 'web +running +- +/.*' zncctl list
step 'it is stopped' web zncctl stop web
step 'its exit code is known' 143 zncctl wait web
step 'it is deleted' web zncctl delete web
step 'what is stored is told' 'layer +1 .*' zncctl storage df
tar --format=gnu -C "$work/image" -czf "$root/srv/tree.tar.gz" .
imported() { shown 'sha256:[0-9a-f]{64}' zncctl import /srv/tree.tar.gz /srv/imported:tree; }
check 'a root filesystem is imported' imported
check 'an imported image is unpacked' \
    inside zncctl unpack --tag tree --progress none /srv/imported /srv/bundle
tree=$(jq -r .root.path "$root/srv/bundle/config.json")
check 'the unpacked file equals that of the source' cmp "$work/image/bin/hello" "$root$tree/bin/hello"
step 'what is stored is removed' "layer $base/.*" zncctl storage gc
kill -TERM "$daemon"
check 'the daemon ends when told to' wait "$daemon"
daemon=
cat "$work/zncd.log"
rm -rf "$root/srv/"*

# What autopkgtest runs.
cp /bin/busybox "$root/bin/busybox"
cp "$source_dir/debian/tests/run-container" "$root/srv"
runs_container() { inside env PACKAGED_BASE="$base" sh /srv/run-container; }
check 'the test of the source package passes' runs_container
rm "$root/srv/run-container" "$root/bin/busybox"
umount "$root/storage"
[[ $base == /storage ]] || umount "$root$base"

debs=("$root"/debs/*.deb)
reinstall() { apt install --reinstall "${debs[@]#"$root"}"; }
check 'installing again works' reinstall
would_go() { apt --simulate remove "$1" | grep "^Remv $2 " >/dev/null; }
check 'the tools do not stay without the library' would_go libzncontainer1 zncontainer-tools
check 'the development files do not stay without the library' would_go libzncontainer1 libzncontainer-dev
check 'the tools are removed' apt remove zncontainer-tools
check 'the programs of the removed packages do not exist' not test -e "$root/usr/bin/zncctl"
check 'everything is purged' apt purge --auto-remove zncontainer-oci zncontainer-import zncontainer-tools \
    libzncontainer-dev libzncontainer1
check 'dpkg knows none of them any more' not inside dpkg --status zncontainer-tools libzncontainer1
check 'nothing of it is in /run' not test -e "$root/run/zncontainer"
same_contents() { contents | diff "$work/before" -; }
check 'nothing of them is left' same_contents
finish
