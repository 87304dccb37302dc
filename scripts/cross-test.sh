#!/usr/bin/env bash
# cross-test.sh [--build] [arm64] [s390x] - builds the project for other processors with Debian's cross
# compilers, and runs in qemu unit tests of what reads bytes (archives, digests, documents of images). arm64 is
# built for Linux; s390x, of which platform/linux does not know the system calls, for POSIX. s390x stores the
# most significant byte first.
# --build: builds only, of arm64 all programs and tests, which "vm-test.sh arm64" runs in a machine. Without names arm64
# and s390x. Needs root for the sandbox of the tests.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/support/checks.sh
. tests/support/checks.sh

build_only=
if [[ ${1-} == --build ]]; then
    build_only=1
    shift
fi
[[ $# -gt 0 ]] || set -- arm64 s390x
scripts/install-deps.sh cross

tests=(digest_nettle_test digest_mbedtls_test uzlib_adapter_zlib_test gzlib_test zncImageLib_inspect_test)
linux_tests=(seccomp_default_test)

declare -A emulator=([arm64]=qemu-aarch64 [s390x]=qemu-s390x)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# built ARCHITECTURE PLATFORM TARGET...
built() {
    local architecture=$1 platform=$2 base=$PWD/build/cross/$1
    shift 2
    scripts/cross-root.sh "$architecture" >/dev/null || return
    # The sandbox is a program of this machine, which starts the emulator. Without optimisation the tests would take long
    # in an emulated machine.
    mkdir -p "$base/build" &&
        cc -D_GNU_SOURCE -DZNC_SOURCE_DIR="\"$PWD\"" -DZNC_BINARY_DIR="\"$base/build\"" \
            -o "$base/sandbox" tests/support/sandbox.c &&
        cmake -S . -B "$base/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$architecture.cmake" \
            -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG=-O1 -DCMAKE_CXX_FLAGS_DEBUG=-O1 \
            -DCMAKE_COMPILE_WARNING_AS_ERROR=ON \
            -DZNC_PLATFORM="$platform" -DZNC_BUILD_MAN=OFF -DZNC_BUILD_TESTS=ON &&
        nice -n 10 cmake --build "$base/build" --target "$@"
}
# passed ARCHITECTURE TEST
passed() {
    local base=$PWD/build/cross/$1
    "$base/sandbox" -- "${emulator[$1]}" -L "$base/root" "$base/build/bin/$2"
}

checked() { "$@" >"$work/log" 2>&1; }
explain_failure() { tail -n 60 "$work/log"; }
for architecture in "$@"; do
    case $architecture in
    arm64)
        platform=linux
        run=("${tests[@]}" "${linux_tests[@]}")
        targets=(zncd zncontainer)
        [[ -z $build_only ]] || targets=(all)
        ;;
    s390x)
        platform=posix
        run=("${tests[@]}")
        targets=(zncontainer)
        ;;
    *)
        printf 'usage: cross-test.sh [--build] [arm64] [s390x]\n' >&2
        exit 64
        ;;
    esac
    check "$architecture: builds for $platform" built "$architecture" "$platform" "${targets[@]}" "${run[@]}"
    [[ -z $build_only ]] || continue
    for test in "${run[@]}"; do
        check "$architecture: $test" passed "$architecture" "$test"
    done
done
finish_checks
