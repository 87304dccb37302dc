#!/usr/bin/env bash
# build-matrix.sh [--all] [ROW...] - builds the project as users do, without the presets: other build types,
# compilers and standards, static, below another project, without what is optional, for POSIX alone, in another
# directory. One line per row; fails when a row does. --all builds zncctl, too, which takes five times as long, and compares
# packages. Without names all rows; builds are kept in build/matrix.
# shellcheck disable=SC2317 # rows are called by their names
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/support/checks.sh
. tests/support/checks.sh
source_dir=$PWD
builds=$source_dir/build/matrix
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

all=
if [[ ${1-} == --all ]]; then
    all=1
    shift
fi
targets=(zncontainer zncd)
[[ -z $all ]] || targets+=(zncctl)
rows=(release minsize lto clang static embedded fetched bare places posix same_bytes)
[[ -z $all ]] || rows+=(same_packages)

if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# configured DIR OPTION...: without the tests, and manual pages only where they are looked at.
configured() {
    cmake -S "$source_dir" -B "$1" -G Ninja -DZNC_BUILD_TESTS=OFF -DZNC_BUILD_MAN=OFF "${@:2}"
}
built() {
    configured "$builds/$1" "${@:2}" && cmake --build "$builds/$1" --target "${targets[@]}"
}
library_built() {
    configured "$builds/$1" -DZNC_BUILD_PROGRAMS=OFF "${@:2}" && cmake --build "$builds/$1"
}
# Builds must not fail because of warnings of other compilers (no -Werror).
release() {
    built release -DCMAKE_BUILD_TYPE=Release && not grep -q -e '-Werror' "$builds/release/build.ninja"
}
# A parent project's unity build must not apply to this project.
minsize() { built minsize -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_UNITY_BUILD=ON; }
lto() { built lto -DCMAKE_BUILD_TYPE=Release -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON; }
clang() {
    built clang -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
}

# Installed as an archive, and used by way of pkg-config and of CMake's find_package. The shared library must
# not be installed there, or the linker would prefer it.
static() {
    local prefix=$work/static consumer=$source_dir/tests/packages/consumer flags
    library_built static -DCMAKE_BUILD_TYPE=Debug -DBUILD_SHARED_LIBS=OFF &&
        cmake --install "$builds/static" --prefix "$prefix" || return
    [[ -z $(find "$prefix" -name '*.so*') ]] || return
    not grep -rI -e "$source_dir" -e "$prefix" "$prefix" || return
    flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zncontainer.pc)") \
        pkg-config --static --cflags --libs zncontainer) || return
    read -ra flags <<<"$flags"
    cc -o "$work/static_c" "$consumer/consumer.c" "${flags[@]}" &&
        c++ -o "$work/static_cpp" "$consumer/consumer.cpp" "${flags[@]}" &&
        cmake -S "$consumer" -B "$work/static_cmake" -DCMAKE_PREFIX_PATH="$prefix" -DWANTED_VERSION=1 &&
        cmake --build "$work/static_cmake" &&
        "$work/static_c" | grep -qx 'C: running' && "$work/static_cpp" | grep -qx 'C++: stopped' &&
        "$work/static_cmake/consumer_c" | grep -qx 'C: running' &&
        "$work/static_cmake/consumer_cpp" | grep -qx 'C++: stopped'
}

parent() {
    cmake -S tests/packages/embedding -B "$builds/$1" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DZNC_SOURCE_DIR="$source_dir" "${@:2}"
}
# As a subproject: only the library is built; the parent's install, tests and packages contain nothing of this
# project.
embedded() {
    local version installed
    version=$(sed -n 's/^#define ZNC_VERSION_[MP][A-Z]* //p' container/runtime/include/zncontainer.h |
        paste -sd .) || return
    rm -rf "$builds/embedded/CMakeCache.txt"
    parent embedded && cmake --build "$builds/embedded" &&
        [[ $("$builds/embedded/parent/program") == "$version" ]] || return
    cmake --install "$builds/embedded" --prefix "$work/embedded" || return
    installed=$(find "$work/embedded" -type f -printf '%P\n') && [[ $installed == bin/program ]] || return
    not grep -rl zncontainer "$builds/embedded/CPackConfig.cmake" || return
    [[ -z $(find "$builds/embedded" -name zncd -o -name zncctl) ]] || return
    ctest --test-dir "$builds/embedded" -N | grep -q '^Total Tests: 0$'
}
fetched() {
    rm -rf "$builds/fetched/CMakeCache.txt"
    parent fetched -DFETCHED=ON || return
    [[ -z $all ]] || cmake --build "$builds/fetched"
}

# Only the required dependencies, unoptimised, with a later standard: each part that is left out is reported once.
bare() {
    local libraries=$work/bare said=$work/bare.log needed line
    mkdir "$libraries"
    for needed in libcjson libseccomp nettle; do
        ln -s "$(pkg-config --variable=pcfiledir $needed)/$needed.pc" "$libraries"
    done
    rm -rf "$builds/bare/CMakeCache.txt"
    PKG_CONFIG_LIBDIR=$libraries PKG_CONFIG_PATH='' cmake -S . -B "$builds/bare" -G Ninja \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_STANDARD=23 -DZNC_SCDOC=OFF \
        -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON >"$said" 2>&1 || {
        cat "$said"
        return 1
    }
    for line in 'ISA-L' 'zncctl-import is not built' 'manual pages are not built' 'tests are not built' \
        'systemd.* are not built'; do
        [[ $(grep -c "^-- zncontainer: .*$line" "$said") -eq 1 ]] || {
            printf 'not reported once: %s\n' "$line"
            cat "$said"
            return 1
        }
    done
    grep -q -e '-std=c++2[3b]' "$builds/bare/build.ninja" || return
    cmake --build "$builds/bare" --target "${targets[@]}"
}

# The platform for POSIX, without headers of Linux and extensions of glibc in sight: the library is built, and its tests
# of images and of that platform are run. They are short; as the other tests, they need root for their sandbox.
posix() {
    local tests=(fs_test msgq_test msgq_record_test path_trust_test root_file_test sticky_test task_test unsupported_test
        gzlib_test zncImageLib_inspect_test zncImageLib_layout_test zncRuntimeApi_image_test zncImageLib_test)
    cmake -S . -B "$builds/posix" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZNC_PLATFORM=posix -DZNC_POSIX_ONLY=ON \
        -DZNC_BUILD_TESTS=ON -DZNC_BUILD_PROGRAMS=OFF &&
        cmake --build "$builds/posix" --target znc_sandbox zncontainer "${tests[@]}" || return
    ctest --test-dir "$builds/posix" -N -R '^ns_test$' | grep -qx 'Total Tests: 0' || return
    ctest --test-dir "$builds/posix" --output-on-failure -R "^($(
        IFS='|'
        printf '%s' "${tests[*]}"
    ))$" || return
    not cmake -S . -B "$work/unknown" -DZNC_PLATFORM=unknown && not cmake -S . -B "$work/linux" -DZNC_POSIX_ONLY=ON
}

# The options for directories: what is no plain absolute path is refused.
places() {
    local wrong
    for wrong in relative / /a/ /a/../b '/a b' '/a"b' "/a'b"; do
        not configured "$builds/places" -DZNC_STORE_BASE="$wrong" || return
    done
    configured "$builds/places" -DZNC_STORE_BASE=/var/lib/zncontainer -DZNC_RUNTIME_DIR=/run/a-b.c &&
        grep -qF '/var/lib/zncontainer' "$builds/places/build.ninja" && grep -qF '/run/a-b.c' "$builds/places/build.ninja"
}

# copied DIR: the sources, in another place.
copied() {
    mkdir -p "$1"
    tar --create --exclude=./build --exclude='./build-*' --exclude=./.git . | tar --extract --directory "$1"
}

# The same bytes from another directory, compiled and not taken from the cache.
same_bytes() {
    local there=$work/quite/another/directory file name
    copied "$there" || return
    release || return
    CCACHE_DISABLE=1 cmake -S "$there" -B "$there/build/matrix/release" -G Ninja -DZNC_BUILD_TESTS=OFF \
        -DZNC_BUILD_MAN=OFF -DCMAKE_BUILD_TYPE=Release &&
        CCACHE_DISABLE=1 cmake --build "$there/build/matrix/release" --target "${targets[@]}" || return
    for file in lib/libzncontainer.so bin/zncd ${all:+bin/zncctl bin/zncctl-import}; do
        name=$(basename "$file")
        cmp "$builds/release/$file" "$there/build/matrix/release/$file" || return
        not grep -qaF "$source_dir" "$builds/release/$file" || {
            printf '%s names the directory it was built in\n' "$name"
            return 1
        }
    done
}

same_packages() { scripts/reproducible.sh; }

[[ $# -gt 0 ]] || set -- "${rows[@]}"
checked() { "$@" >"$work/row.log" 2>&1; }
explain_failure() { tail -n 60 "$work/row.log"; }
for row in "$@"; do
    if [[ " ${rows[*]} " != *" $row "* ]]; then
        printf 'usage: build-matrix.sh [--all] [ROW...], rows: %s\n' "${rows[*]}" >&2
        exit 64
    fi
    check "builds: $row" "$row"
done
finish_checks
