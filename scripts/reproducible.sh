#!/usr/bin/env bash
# reproducible.sh [DEBS] - builds the Debian packages of the committed tree twice with dpkg-buildpackage: in two
# directories, at two times, with other users' directories, umasks, time zones, languages, host names and numbers of
# processes; and compares them byte for byte. With DEBS, a directory of packages that were built from the same commit,
# builds once and compares with these. Differences are explained by diffoscope if it is installed. Nothing is taken
# from ccache. Needs root, for the host name, and the packages installed by "install-deps.sh build package".
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$work/log

# built PARENT ENVIRONMENT...: builds in PARENT/zncontainer; the packages are in PARENT.
built() {
    local parent=$1
    shift
    mkdir -p "$parent/zncontainer" "$parent/home"
    git archive HEAD | tar -xf - -C "$parent/zncontainer"
    (
        cd "$parent/zncontainer"
        find . -exec touch --no-dereference {} + # other times, too
        # shellcheck disable=SC2016 # the inner shell expands the name
        env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER CCACHE_DISABLE=1 HOME="$parent/home" "$@" \
            DEB_BUILD_OPTIONS="nocheck noautodbgsym ${options-}" \
            unshare --uts sh -c 'hostname "$BUILD_HOST" && exec dpkg-buildpackage -us -uc -b'
    ) >"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        exit 1
    }
}

first=${1-}
if [[ -z $first ]]; then
    first=$work/one
    (umask 0022 && built "$first" BUILD_HOST=one TZ=UTC LC_ALL=C)
    sleep 2
fi
second=$work/another/and/deeper/directory
(umask 0002 && options=parallel=1 built "$second" BUILD_HOST=another TZ=Asia/Kathmandu LC_ALL=C.UTF-8 LANGUAGE=de)

compared=0
differ=0
for deb in "$second"/*.deb; do
    name=$(basename "$deb")
    compared=$((compared + 1))
    if cmp "$first/$name" "$deb"; then
        printf 'same  %s\n' "$name"
    else
        differ=$((differ + 1))
        if command -v diffoscope >/dev/null; then
            diffoscope --max-report-size 20000 "$first/$name" "$deb" || [[ $? -eq 1 ]]
        else
            printf '      (diffoscope, which would explain it, is not installed)\n'
        fi
    fi
done
printf '%d packages, %d differ\n' "$compared" "$differ"
[[ $compared -eq 5 && $differ -eq 0 ]]
