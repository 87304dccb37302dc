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

# fetch_kernel: Debian 12's kernel for clouds, or the one named by VM_KERNEL: a package, such as
# linux-image-6.12-cloud-amd64, or the file of a package.
fetch_kernel() {
    local name=${VM_KERNEL:-linux-image-cloud-amd64} package
    if [[ $name == *.deb ]]; then
        rm -rf build/vm/kernel-file
        mkdir -p build/vm/kernel-file
        dpkg-deb --extract "$name" build/vm/kernel-file
        printf '%s\n' "$PWD/build/vm/kernel-file"
        return
    fi
    package() { apt-cache depends "$name" | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p' | head -1; }
    package=$(package)
    if [[ -z $package ]]; then
        apt-get -q update >&2
        package=$(package)
    fi
    fetch "${package:-$name}" "${VM_KERNEL:-kernel}"
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
