#!/usr/bin/env bash
# packages_consumer.sh - uses the installed library like a third-party project: headers in every language
# standard, CMake's find_package, pkg-config, and the examples, which are daemons. Needs a sandbox.
# shellcheck source=tests/system/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

prefix=$work/prefix
check 'the library is installed' install_component "$prefix" library
check 'the development files are installed' install_component "$prefix" dev
libdir=$(dirname "$(find "$prefix" -name libzncontainer.so)")
export LD_LIBRARY_PATH=$libdir

# header NAME STANDARD FLAGS...: both headers, each alone and twice, for each compiler that is there.
warnings=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only "-I$prefix/include")
header() {
    local header=$1 standard=$2 language compiler
    local compilers=(cc clang)
    language=c
    if [[ $standard == c++* ]]; then
        language=c++ compilers=(c++ clang++)
    fi
    shift 2
    for compiler in "${compilers[@]}"; do
        command -v "$compiler" >/dev/null || continue
        printf '#include <%s>\n#include <%s>\nint used;\n' "$header" "$header" |
            "$compiler" -x "$language" "-std=$standard" "${warnings[@]}" "$@" - || return
    done
}
for file in zncontainer.h zncprotocol.h; do
    check "$file is C99" header "$file" c99 -Wc++-compat
    check "$file is C11" header "$file" c11 -Wc++-compat
    check "$file is C++11" header "$file" c++11
    check "$file is C++20" header "$file" c++20
done

consumer=$source_dir/tests/packages/consumer
configure() {
    cmake -S "$1" -B "$work/$2" -DCMAKE_PREFIX_PATH="$prefix" "${@:3}"
}
check 'CMake finds the library' configure "$consumer" cmake -DWANTED_VERSION=1.0
check 'CMake builds programs with it' cmake --build "$work/cmake"
check 'CMake: the program in C runs' prints 'C: running' "$work/cmake/consumer_c"
check 'CMake: the program in C++ runs' prints 'C++: stopped' "$work/cmake/consumer_cpp"
check 'CMake: another major version is not accepted' \
    not configure "$consumer" refused -DWANTED_VERSION=2.0

by_pkg_config() {
    local flags
    flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs 'zncontainer >= 1.0') || return
    read -ra flags <<<"$flags"
    "$1" -o "$work/$3" "$consumer/$2" "${flags[@]}"
}
check 'pkg-config: a program in C is built' by_pkg_config cc consumer.c pc_c
check 'pkg-config: the program in C runs' prints 'C: running' "$work/pc_c"
check 'pkg-config: a program in C++ is built' by_pkg_config c++ consumer.cpp pc_cpp
check 'pkg-config: the program in C++ runs' prints 'C++: stopped' "$work/pc_cpp"

# The installation can be moved: no file contains its path.
check 'no development file names the directory' \
    not grep -rIl "$prefix" "$prefix/include" "$libdir/pkgconfig" "$libdir/cmake"

# The examples, from where they were installed.
check 'the examples are configured' configure "$(find "$prefix" -type d -name examples)" examples
check 'the examples are built' cmake --build "$work/examples"

# A bundle whose program leaves a line in its root.
bundle=$work/bundle
mkdir -p "$bundle/rootfs/bin" "$bundle/rootfs/tmp"
cp /bin/busybox "$bundle/rootfs/bin/busybox"
cat >"$bundle/config.json" <<'JSON'
{"ociVersion": "1.0.0", "root": {"path": "rootfs"},
 "process": {"cwd": "/", "args": ["/bin/busybox", "echo", "hello from inside"]}}
JSON
export ZNC_BASE=$work/storage
zncctl=$ZNC_BUILD_DIR/bin/zncctl

check 'the example in C runs a container' \
    prints 'hello from inside' "$work/examples/embed_c" "$bundle"
check 'the example in C leaves nothing behind' not "$zncctl" ping
check 'the example in C can run again' \
    prints 'hello from inside' "$work/examples/embed_c" "$bundle"

"$work/examples/embed_cpp" >"$work/embed.log" 2>&1 &
embedded=$!
check 'the example in C++ serves' eventually "$zncctl" ping
check 'the example in C++ is the only daemon' not "$work/examples/embed_c" "$bundle"
check 'a client creates a container' "$zncctl" create web "$bundle"
lists() { "$zncctl" list | grep "$1" >/dev/null; }
check 'a client sees it' lists web
kill -TERM "$embedded"
check 'the example in C++ ends its containers and itself' wait "$embedded"
check 'the example in C++ leaves nothing behind' not "$zncctl" ping
check 'no process is left' not pgrep -f "$work/examples/embed"
finish
