#!/usr/bin/env bash
# packages_tutorial.sh - docs/tutorial.md: its pieces are the example, and the example does what it says when it
# is compiled against the installed library. Needs a sandbox.
# shellcheck source=tests/system/packages/packages_lib.sh
. "$(dirname "$0")/packages_lib.sh"

prefix=$work/prefix
daemon=
clean_up() {
    # The daemon empties its storage when it ends.
    if [[ -n $daemon ]]; then kill "$daemon" && wait "$daemon"; fi
    rm -rf "$work"
}
trap clean_up EXIT

# The code blocks in C of the page, an empty line between them.
# shellcheck disable=SC2016 # the marks of a code block
pieces() {
    sed -n '/^```c$/,/^```$/p' "$source_dir/docs/tutorial.md" |
        sed -e '1d' -e '/^```c$/d' -e '$d' -e 's/^```$//'
}
same_program() { diff -u <(pieces) "$source_dir/examples/tutorial.c"; }
check 'the page and the example are the same program' same_program

check 'the library is installed' install_component "$prefix" library
check 'the development files are installed' install_component "$prefix" dev
libdir=$(dirname "$(find "$prefix" -name libzncontainer.so)")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig ZNC_BASE=$work/storage
cd "$work"

compiled() {
    local flags
    flags=$(pkg-config --cflags --libs zncontainer) || return
    read -ra flags <<<"$flags"
    cc -Wall -Wextra -Werror -o tutorial "$prefix/share/doc/libzncontainer-dev/examples/tutorial.c" "${flags[@]}"
}
check 'the installed example is compiled by way of pkg-config' compiled

# image NAME ARGUMENT...: as the page makes it.
mkdir -p tree/bin
cp /bin/busybox tree/bin
tar --create --format=ustar --directory=tree --file=tree.tar .
image() {
    local name=$1 argument arguments=()
    shift
    for argument in "$@"; do arguments+=(--config.cmd "$argument"); done
    umoci init --layout "$name" && umoci new --image "$name:latest" &&
        umoci raw add-layer --image "$name:latest" tree.tar &&
        umoci config --image "$name:latest" --os linux --architecture amd64 \
            --config.workingdir / --config.entrypoint /bin/busybox "${arguments[@]}"
}
check 'an image is made' image image echo 'hello from inside'

# ends STATUS ARGUMENT...: the example's exit status; what it printed is in out and err.
ends() {
    local status=0
    ./tutorial "${@:2}" >out 2>err || status=$?
    cat out err
    [[ $status -eq $1 ]]
}
check 'no daemon: it says so' ends 1 image bundle web
check 'no daemon: nothing is unpacked' not test -e bundle

"$ZNC_BUILD_DIR/bin/zncd" >zncd.log 2>&1 &
daemon=$!
check 'the daemon answers' eventually "$ZNC_BUILD_DIR/bin/zncctl" ping

check 'the program of the image runs' ends 0 image bundle web
check 'its output is the program'"'"'s' prints 'hello from inside' cat out
state() { grep -cE '^\{"ociVersion":"1.0.0","id":"web","status":[23],"bundle":".*bundle"\}$' err; }
check 'the state was shown' prints 1 state
check 'the container is stopped after its program ended' grep -qx 'web is stopped' err
check 'the container is gone' prints '[]' "$ZNC_BUILD_DIR/bin/zncctl" list --format json
check 'the bundle serves again' ends 0 image bundle web

check 'an image that fails is made' image failing sh -c 'exit 7'
check 'the exit status is the program'"'"'s' ends 7 failing failing-bundle web
# shellcheck disable=SC2016 # the shell in the container
check 'an image that is killed is made' image killed sh -c 'kill -9 $$'
check 'the end by a signal is told' ends 137 killed killed-bundle web

check 'a layout that is missing: the step' ends 1 nothing nothing-bundle web
check 'a layout that is missing: is named' grep -qx 'tutorial: unpack failed' err
check 'a layout that is missing: why' grep -q '^Error: .*[.]$' out
check 'a bad name: the step' ends 1 image bundle 'no/name'
check 'a bad name: is named' grep -qx 'tutorial: create failed' err
sed -i 's|/bin/busybox|/bin/missing|' bundle/config.json
check 'a missing program: the step' ends 1 image bundle web
check 'a missing program: is named' grep -qx 'tutorial: start failed' err
check 'a missing program: nothing is left' prints '[]' "$ZNC_BUILD_DIR/bin/zncctl" list --format json
finish
