#!/usr/bin/env bash
# install-deps.sh [build] [package] [test] [bench] [compare] [demo] [vm] [suites] [release] [cross] - installs
# the Debian packages needed for building, packaging, tests, benchmarks, the demo, tests in a virtual machine,
# the suites of other runtimes, releases, or tests for other processors; without arguments, those for build,
# test and demo. Needs root only if packages are missing.
set -euo pipefail

build=(ca-certificates cmake g++ libarchive-dev libcjson-dev libcli11-dev libfmt-dev libseccomp-dev libsystemd-dev
    nettle-dev ninja-build nlohmann-json3-dev pkg-config zlib1g-dev)
case $(dpkg --print-architecture) in
amd64 | arm64) build+=(libisal-dev) ;;
esac
package=(debhelper dpkg-dev file scdoc)
test=(binutils buildah busybox-static bzip2 clang clang-format clang-tidy cppcheck dbus-daemon debhelper debootstrap dpkg-dev e2fsprogs
    file fish iproute2 jq libarchive-tools libgtest-dev libmbedtls-dev lintian mandoc mount passt procps python3 scdoc shellcheck skopeo strace systemd tar uidmap
    umoci util-linux xfsprogs xz-utils zstd)
bench=(bubblewrap busybox-static crun debootstrap gnuplot-nox libarchive-tools libbenchmark-dev mount procps python3
    runc skopeo umoci util-linux)
compare=(busybox-static conmon containerd crun podman skopeo slirp4netns uidmap umoci)
demo=(busybox-static mount passt tar umoci)
vm=(busybox-static cmake cpio debootstrap jq qemu-system-x86 umoci)
suites=(bats bsdutils busybox-static conmon crun debootstrap dpkg-dev gawk gcc golang-dbus-dev golang-github-cilium-ebpf-dev
    golang-github-containerd-console-dev golang-github-coreos-go-systemd-dev golang-github-cyphar-filepath-securejoin-dev
    golang-github-docker-go-units-dev golang-github-moby-sys-dev golang-github-opencontainers-selinux-dev
    golang-github-opencontainers-specs-dev golang-github-seccomp-libseccomp-golang-dev golang-github-sirupsen-logrus-dev
    golang-github-urfave-cli-dev golang-go golang-golang-x-sys-dev iproute2 jq libseccomp-dev podman python3 runc util-linux
    xz-utils)
release=(abigail-tools dpkg-dev lintian ninja-build rpm rpmlint shellcheck xz-utils)
cross=(g++-aarch64-linux-gnu g++-s390x-linux-gnu qemu-system-arm qemu-user)

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
    suites) packages+=("${suites[@]}") ;;
    release) packages+=("${release[@]}") ;;
    cross) packages+=("${cross[@]}") ;;
    *)
        printf 'usage: install-deps.sh [build] [package] [test] [bench] [compare] [demo] [vm] [suites] [release] [cross]\n' >&2
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
