# vm-lib.sh - sourced by the scripts that run tests in virtual machines: Debian's kernel, and the start.
# shellcheck shell=bash

# fetch PACKAGE NAME: downloads and unpacks a package, without installing it, and prints where it is.
fetch() {
    local package=$1 unpacked=$PWD/build/vm/$2
    if [[ ! -e $unpacked/$package ]]; then
        rm -rf "$unpacked"
        mkdir -p "$unpacked"
        (cd "$unpacked" && apt-get -q -o APT::Sandbox::User=root download "$package" >&2)
        dpkg-deb --extract "$unpacked"/*.deb "$unpacked"
        rm "$unpacked"/*.deb
        touch "$unpacked/$package"
    fi
    printf '%s\n' "$unpacked"
}

# fetch_kernel: the newest kernel for clouds.
fetch_kernel() {
    local package
    package() { apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: //p' | head -1; }
    package=$(package)
    if [[ -z $package ]]; then
        apt-get -q update >&2
        package=$(package)
    fi
    fetch "$package" kernel
}

# pack TREE FILE: the tree as an initial file system.
pack() {
    (cd "$1" && find . -print0 | cpio --quiet --null --create --format=newc | gzip -1) >"$2"
}

# start_machine SECONDS KERNEL INITRD WORDS: prints the console until the machine ends. WORDS are for the
# kernel's command line. The console ends lines with CR and LF.
start_machine() {
    timeout --foreground "$1" qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m "${VM_TEST_MEMORY:-1536}" \
        -nodefaults -no-reboot -display none -serial stdio -kernel "$2"/boot/vmlinuz-* -initrd "$3" \
        -append "console=ttyS0 quiet panic=-1 $4" </dev/null | tr -d '\r'
}
