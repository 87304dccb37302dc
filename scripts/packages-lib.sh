# packages-lib.sh - sourced by the scripts that need packages of Debian, also for another processor, without installing
# them: beside those of this machine not all could be installed.
# shellcheck shell=bash

# apt_for ARCHITECTURE DIRECTORY COMMAND...: runs apt-get or apt-cache as on a machine of that kind on which nothing is
# installed, with its files in the directory.
apt_for() {
    local architecture=$1 directory=$2 command=$3
    shift 3
    if [[ ! -e $directory/state/status ]]; then
        mkdir -p "$directory"/{cache/archives/partial,state/lists/partial}
        touch "$directory/state/status"
        apt_for "$architecture" "$directory" apt-get update >&2
    fi
    "$command" -q -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" \
        -o "Dir::State=$directory/state" -o "Dir::State::status=$directory/state/status" \
        -o "Dir::Cache=$directory/cache" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
        -o APT::Sandbox::User=root -o Debug::NoLocking=1 "$@"
}

# tree_for ARCHITECTURE DIRECTORY PACKAGE...: unpacks packages and what they depend on in DIRECTORY/root, without
# running anything of them, and prints that directory. An unfinished tree, or one of other packages, is made again.
# DIRECTORY/shlibs tells dpkg-shlibdeps of which package a library is.
tree_for() {
    local architecture=$1 directory=$2 package name
    shift 2
    if [[ ! -e $directory/complete || $(<"$directory/complete") != "$*" ]]; then
        rm -rf "$directory"/{root,cache,state,shlibs,complete}
        mkdir -p "$directory"/root/usr/{bin,lib,sbin}
        apt_for "$architecture" "$directory" apt-get install --yes --download-only --no-install-recommends "$@" >&2
        for name in bin lib sbin; do ln -s "usr/$name" "$directory/root/$name"; done
        for package in "$directory"/cache/archives/*.deb; do
            dpkg-deb --fsys-tarfile "$package" | tar --extract --keep-directory-symlink --directory "$directory/root"
            rm -rf "$directory/control"
            dpkg-deb --control "$package" "$directory/control"
            if [[ -e $directory/control/shlibs ]]; then cat "$directory/control/shlibs" >>"$directory/shlibs"; fi
        done
        rm -rf "$directory/cache" "$directory/state" "$directory/control"
        printf '%s\n' "$*" >"$directory/complete"
    fi
    printf '%s\n' "$directory/root"
}
