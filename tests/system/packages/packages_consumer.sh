#!/usr/bin/env bash
# packages_consumer.sh - uses the installed library like a third-party project: headers in every language
# standard, CMake's find_package, pkg-config, and the examples, which are daemons. Needs a sandbox.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

prefix=$work/prefix
check 'the library is installed' install_component "$prefix" library
check 'the development files are installed' install_component "$prefix" dev
libdir=$(dirname "$(find "$prefix" -name libzncontainer.so)")
export LD_LIBRARY_PATH=$libdir

# compiled STANDARD FLAGS...: the standard input, by each compiler that is there.
warnings=(-pedantic -Wall -Wextra -Werror -fsyntax-only "-I$prefix/include")
compiled() {
    local standard=$1 language=c compiler source=$work/source
    local compilers=(cc clang)
    if [[ $standard == c++* ]]; then
        language=c++ compilers=(c++ clang++)
    fi
    cat >"$source"
    for compiler in "${compilers[@]}"; do
        command -v "$compiler" >/dev/null || continue
        "$compiler" -x "$language" "-std=$standard" "${warnings[@]}" "${@:2}" "$source" || return
    done
}
# header NAME STANDARD FLAGS...: one header, alone and twice.
header() { printf '#include <%s>\n#include <%s>\nint used;\n' "$1" "$1" | compiled "${@:2}"; }
for file in zncontainer.h zncprotocol.h; do
    for standard in c89 c99 c11 c17 c2x; do
        check "$file is $standard" header "$file" "$standard" -Wc++-compat
    done
    for standard in c++98 c++03 c++11 c++14 c++17 c++20 c++2b; do
        check "$file is $standard" header "$file" "$standard"
    done
done

# Others define these names, too: the same values are taken, others are not mixed up with ours.
defined() {
    printf '#define %s\n' "$@"
    printf '#include <zncontainer.h>\nint used;\n'
}
same_results() { defined 'OK (0)' 'ERROR -1' 'TRUE (1 == 1)' 'FALSE 0' | compiled c99; }
other_results() { defined "$1" | compiled c99; }
check 'results that another header defined alike are taken' same_results
for other in 'OK 1' 'ERROR 0' 'TRUE 2' 'FALSE 1'; do
    check "'$other' of another header is refused" not other_results "$other"
done

# A result that must not be lost is asked for, with every compiler.
ignored() { printf '#include <zncontainer.h>\nvoid f(void);\nvoid f(void) { %s; }\n' "$1" | compiled "$2"; }
for standard in c89 c11 c++98 c++20; do
    check "$standard: an ignored create is warned of" not ignored 'zncCreate("a", "b", 0, NULL)' "$standard"
    check "$standard: an ignored delete is not" ignored 'zncDelete("a", 0)' "$standard"
done

# The version, without any build system: the header, the library and pkg-config have the same.
version_of_header() { printf '#include <zncontainer.h>\nZNC_VERSION\n' | cc -E "-I$prefix/include" - | tail -n 1; }
version=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --modversion zncontainer)
check 'the header has the version of the package' prints "\"${version//./\" \".\" \"}\"" version_of_header

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
