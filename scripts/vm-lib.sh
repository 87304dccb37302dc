# vm-lib.sh - sourced by the scripts that run tests in virtual machines: Debian's kernel, and the start.
# shellcheck shell=bash
# shellcheck source=scripts/packages-lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/packages-lib.sh"

# The processor of the machine; a script may choose arm64.
machine=amd64

# only_amd64: ends the script on another machine.
only_amd64() {
    [[ $(dpkg --print-architecture) == amd64 ]] && return
    printf '%s: only amd64 is supported\n' "${0##*/}" >&2
    exit 1
}

# download PACKAGE: into the working directory; one for the processor of the machine, if its name ends with that.
download() {
    if [[ $1 != *-arm64 ]]; then
        apt-get -q -o APT::Sandbox::User=root download "$1"
        return
    fi
    (
        lists=$(mktemp -d)
        trap 'rm -rf "$lists"' EXIT
        apt_for arm64 "$lists" apt-get download "$1"
    )
}

# fetch PACKAGE NAME: downloads and unpacks a package, without installing it, and prints where it is.
fetch() {
    local package=$1 unpacked=$PWD/build/vm/$2
    if [[ ! -e $unpacked/$package ]]; then
        rm -rf "$unpacked"
        mkdir -p "$unpacked"
        (cd "$unpacked" && download "$package" >&2)
        dpkg-deb --extract "$unpacked"/*.deb "$unpacked"
        rm "$unpacked"/*.deb
        touch "$unpacked/$package"
    fi
    printf '%s\n' "$unpacked"
}

# fetch_kernel: Debian 12's kernel for clouds, or the one named by VM_KERNEL: a package, such as
# linux-image-6.12-cloud-amd64, or the file of a package.
fetch_kernel() {
    local name=${VM_KERNEL:-linux-image-cloud-$machine} package
    if [[ $name == *.deb ]]; then
        rm -rf build/vm/kernel-file
        mkdir -p build/vm/kernel-file
        dpkg-deb --extract "$name" build/vm/kernel-file
        printf '%s\n' "$PWD/build/vm/kernel-file"
        return
    fi
    # The kernels of all processors have the same version.
    package() {
        apt-cache depends "${name/%arm64/amd64}" | sed -n "s/^ *Depends: \(linux-image-.*\)amd64$/\1$machine/p" | head -1
    }
    package=$(package)
    if [[ -z $package ]]; then
        apt-get -q update >&2
        package=$(package)
    fi
    fetch "${package:-$name}" "${VM_KERNEL:-kernel-$machine}"
}

# put_module KERNEL NAME DIRECTORY: copies a module of the kernel.
put_module() {
    local file
    file=$(find "$1" -path '*/modules/*' \( -name "$2.ko" -o -name "$2.ko.xz" \) -print -quit)
    case $file in
    *.xz) xz -dc "$file" >"$3/$2.ko" ;;
    *) cp "$file" "$3/$2.ko" ;;
    esac
}

# debian_tree NAME PACKAGES: unpacks a minimal Debian 12 with these packages, separated by commas, without
# starting anything in it, and prints where it is. An unfinished tree, or one of other packages, is made again.
debian_tree() {
    local system=$PWD/build/vm/$1
    if [[ ! -e $system/complete || $(<"$system/complete") != "$2" ]]; then
        rm -rf "$system"
        mkdir -p "$system"
        debootstrap --variant=minbase --include="$2" bookworm "$system/tree" >&2
        printf '%s\n' "$2" >"$system/complete"
    fi
    printf '%s\n' "$system/tree"
}

# copy_debian SOURCE TREE [PATTERN...]: copies such a tree without what no test needs, nor files of the patterns.
copy_debian() {
    local source=$1 tree=$2 exclude=() pattern
    shift 2
    for pattern in ./usr/share/{doc,man,locale,info,zoneinfo} ./var/{cache,lib/apt} './usr/lib/*/gconv' \
        ./dev "$@"; do
        exclude+=(--exclude="$pattern")
    done
    mkdir -p "$tree/dev"
    tar -C "$source" "${exclude[@]}" -cf - . | tar -C "$tree" -xf -
}

# add_systemd TREE SCRIPT: lets the machine start systemd, which runs the script as a unit and switches off, and puts
# busybox and the checks of scripts beside the script, in /tests. Its last line is "NAME ended with STATUS".
add_systemd() {
    local tree=$1 units=$1/etc/systemd/system unit
    install -D tests/support/checks.sh "$2" /bin/busybox -t "$tree/tests"
    # The initial file system cannot be left by pivot_root, which containers need, so everything moves to a tmpfs.
    cat >"$tree/init" <<'EOF'
#!/tests/busybox sh
busybox=/tests/busybox
$busybox mkdir /newroot
$busybox mount -t tmpfs -o mode=0755 tmpfs /newroot
for entry in bin etc lib lib32 lib64 libx32 sbin usr var tests root run; do
    if [ -e "/$entry" ]; then $busybox cp -a "/$entry" /newroot/; fi
done
$busybox mkdir -p /newroot/dev /newroot/proc /newroot/sys /newroot/tmp
exec $busybox switch_root /newroot /lib/systemd/systemd
EOF
    chmod 0755 "$tree/init"
    cat >"$units/tests.service" <<EOF
[Unit]
Requires=dbus.service
After=dbus.service basic.target
[Service]
Type=oneshot
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS0
ExecStart=/bin/bash /tests/$(basename "$2")
ExecStopPost=/bin/systemctl --no-block --force --force poweroff
EOF
    printf '[Unit]\nRequires=basic.target tests.service\n' >"$units/tests.target"
    for unit in systemd-logind.service systemd-timesyncd.service; do ln -sf /dev/null "$units/$unit"; done
}

# add_libraries PROGRAM TREE: copies the libraries that the tree lacks. ldd prints "name => path (address)", or the path
# of the loader alone.
add_libraries() {
    local library
    while read -r library; do
        [[ -e $2$library ]] || install -D "$library" "$2$library"
    done < <(ldd "$1" | grep -o '/[^ ]*' | sort -u)
}

# pack TREE FILE: the tree as an initial file system.
pack() {
    (cd "$1" && find . -print0 | cpio --quiet --null --create --format=newc | gzip -1) >"$2"
}

# start_machine SECONDS KERNEL INITRD WORDS: prints the console until the machine ends. WORDS are for the
# kernel's command line. The console ends lines with CR and LF.
start_machine() {
    local qemu=(qemu-system-x86_64 -cpu max) console=ttyS0
    if [[ $machine == arm64 ]]; then
        # The architected algorithm that signs pointers takes long to emulate.
        qemu=(qemu-system-aarch64 -M virt -cpu "max,pauth-impdef=on")
        console=ttyAMA0
    fi
    timeout --foreground "$1" "${qemu[@]}" -accel tcg -smp 2 -m "${VM_TEST_MEMORY:-1536}" \
        -nodefaults -no-reboot -display none -serial stdio -kernel "$2"/boot/vmlinuz-* -initrd "$3" \
        -append "console=$console quiet panic=-1 $4" </dev/null | stdbuf -oL tr -d '\r'
}

# start_systemd SECONDS KERNEL INITRD NAME [WORDS]: starts a machine that add_systemd has prepared. Fails unless the
# script NAME.sh ended with 0.
start_systemd() {
    local words="systemd.unit=tests.target systemd.show_status=0 systemd.log_level=err ${5-}"
    VM_TEST_MEMORY=${VM_TEST_MEMORY:-2048} start_machine "$1" "$2" "$3" "$words" |
        awk -v "last=$4 ended with 0" '{ print; fflush() } $0 == last { good = 1 } END { exit !good }'
}
