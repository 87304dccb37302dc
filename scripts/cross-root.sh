#!/usr/bin/env bash
# cross-root.sh ARCHITECTURE - prints a directory with the libraries and headers of Debian for another processor
# (arm64, s390x), for cross compilers and qemu. Makes it in build/cross/ARCHITECTURE/root first, if it is
# missing, by downloading and unpacking packages: installing them beside those of this machine would remove some
# of these, as not all are made for that. Changes nothing outside of build/cross.
set -euo pipefail
cd "$(dirname "$0")/.."

architecture=${1:?the architecture}
base=$PWD/build/cross/$architecture
packages=(libarchive-dev libc6-dev libcjson-dev libfmt-dev libgtest-dev libmbedtls-dev libseccomp-dev libstdc++6
    nettle-dev nlohmann-json3-dev libcli11-dev zlib1g-dev)
[[ $architecture != arm64 ]] || packages+=(libisal-dev)

if [[ ! -e $base/complete ]]; then
    rm -rf "$base"
    mkdir -p "$base"/{cache/archives/partial,state/lists/partial,root/usr/lib}
    touch "$base/state/status"
    # apt as on a machine of that kind on which nothing is installed.
    apt=(apt-get -q -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture"
        -o "Dir::State=$base/state" -o "Dir::State::status=$base/state/status" -o "Dir::Cache=$base/cache"
        -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= -o APT::Sandbox::User=root -o Debug::NoLocking=1)
    "${apt[@]}" update >&2
    "${apt[@]}" install --yes --download-only --no-install-recommends "${packages[@]}" >&2
    ln -s usr/lib "$base/root/lib"
    for package in "$base"/cache/archives/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar --extract --keep-directory-symlink --directory "$base/root"
    done
    rm -rf "$base/cache" "$base/state"
    touch "$base/complete"
fi
printf '%s\n' "$base/root"
