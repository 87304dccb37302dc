#!/usr/bin/env bash
# cross-root.sh ARCHITECTURE - prints a directory with the libraries and headers of Debian for another processor
# (arm64, s390x), for cross compilers and qemu. Makes it in build/cross/ARCHITECTURE/root first, if it is
# missing, by downloading and unpacking packages. Changes nothing outside of build/cross.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages-lib.sh

architecture=${1:?the architecture}
packages=(libarchive-dev libc6-dev libcjson-dev libfmt-dev libgtest-dev libmbedtls-dev libseccomp-dev libstdc++6
    nettle-dev nlohmann-json3-dev libcli11-dev zlib1g-dev)
[[ $architecture != arm64 ]] || packages+=(libisal-dev libsystemd-dev)
tree_for "$architecture" "$PWD/build/cross/$architecture" "${packages[@]}"
