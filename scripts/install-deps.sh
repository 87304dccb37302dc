#!/usr/bin/env bash
# install-deps.sh [build] [test] [demo] - installs the Debian packages that building, testing or the
# demo need; all of them without arguments. Does nothing when they are there. Needs root only when
# they are not.
set -euo pipefail

build=(ca-certificates cmake g++ libcjson-dev libmbedtls-dev ninja-build pkg-config)
case $(dpkg --print-architecture) in
amd64 | arm64) build+=(libisal-dev) ;;
*) build+=(zlib1g-dev) ;;
esac
test=(binutils busybox-static clang clang-format clang-tidy debootstrap libarchive-tools
    libgtest-dev mount python3 shellcheck skopeo strace tar umoci util-linux zlib1g-dev)
demo=(busybox-static mount tar umoci)

packages=()
[[ $# -gt 0 ]] || set -- build test demo
for group in "$@"; do
    case $group in
    build) packages+=("${build[@]}") ;;
    test) packages+=("${test[@]}") ;;
    demo) packages+=("${demo[@]}") ;;
    *)
        printf 'usage: install-deps.sh [build] [test] [demo]\n' >&2
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
