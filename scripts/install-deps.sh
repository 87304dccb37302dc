#!/usr/bin/env bash
# install-deps.sh [build] [package] [test] [bench] [compare] [demo] [vm] - installs the Debian packages needed
# for building, packaging, tests, benchmarks, the demo or tests in a virtual machine; without
# arguments, those for build, test and demo. Needs root only if packages are missing.
set -euo pipefail

build=(ca-certificates cmake g++ libarchive-dev libcjson-dev libcli11-dev libfmt-dev libseccomp-dev libsystemd-dev
    nettle-dev ninja-build nlohmann-json3-dev pkg-config zlib1g-dev)
case $(dpkg --print-architecture) in
amd64 | arm64) build+=(libisal-dev) ;;
esac
package=(dpkg-dev file scdoc)
test=(binutils buildah busybox-static bzip2 clang clang-format clang-tidy cppcheck dbus-daemon debootstrap dpkg-dev e2fsprogs
    file fish iproute2 jq libarchive-tools libgtest-dev libmbedtls-dev lintian mandoc mount passt procps python3 scdoc shellcheck skopeo strace systemd tar
    umoci util-linux xfsprogs xz-utils zstd)
bench=(bubblewrap busybox-static crun debootstrap gnuplot-nox libarchive-tools libbenchmark-dev mount python3
    runc skopeo umoci util-linux)
compare=(busybox-static conmon containerd crun podman skopeo slirp4netns uidmap umoci)
demo=(busybox-static mount passt tar umoci)
vm=(busybox-static cpio debootstrap qemu-system-x86)

packages=()
[[ $# -gt 0 ]] || set -- build test demo
for group in "$@"; do
    case $group in
    build) packages+=("${build[@]}") ;;
    package) packages+=("${package[@]}") ;;
    test) packages+=("${test[@]}") ;;
    bench) packages+=("${bench[@]}") ;;
    compare) packages+=("${compare[@]}") ;;
    demo) packages+=("${demo[@]}") ;;
    vm) packages+=("${vm[@]}") ;;
    *)
        printf 'usage: install-deps.sh [build] [package] [test] [bench] [compare] [demo] [vm]\n' >&2
        exit 64
        ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || state=
    [[ $state == installed ]] || missing+=("$package")
done
[[ ${#missing[@]} -gt 0 ]] || exit 0

if [[ $(id -u) -ne 0 ]]; then
    printf 'These packages are missing, and only root can install them: %s\n' "${missing[*]}" >&2
    exit 1
fi
printf 'installing %s\n' "${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { apt-get -q update && apt-get -qy install --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
