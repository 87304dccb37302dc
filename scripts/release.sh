#!/usr/bin/env bash
# release.sh [--once] [--rehearse] DIR - makes everything that a release consists of in the new directory DIR, from the
# committed tree: the source archive, the Debian source package and packages, RPM packages, the recipes, an SPDX
# document, and checksums; and checks them. Ends with 1 if a check fails. What cannot be done on this machine is
# reported as skipped. --once leaves out the second build, which shows that the packages are reproducible; --rehearse
# accepts changes that are not committed, and does not use them. Needs root and "install-deps.sh build package release".
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/support/checks.sh
. tests/support/checks.sh

once='' rehearse=''
while [[ ${1-} == --* ]]; do
    case $1 in
    --once) once=1 ;;
    --rehearse) rehearse=1 ;;
    *) break ;;
    esac
    shift
done
if [[ $# -ne 1 || $1 == -* ]]; then
    printf 'usage: release.sh [--once] [--rehearse] DIR\n' >&2
    exit 64
fi
if ! mkdir "$1"; then exit 1; fi
out=$(realpath "$1")
if [[ $out == /tmp/* ]]; then
    rmdir "$out"
    printf 'release.sh: %s: the tests of the packages have a /tmp of their own; choose another directory\n' "$out" >&2
    exit 64
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
checked() { "$@" >"$work/log" 2>&1; }
explain_failure() { tail -n 60 "$work/log"; }
skip() { printf 'skipped - %s: %s\n' "$1" "$2"; }
have() { command -v "$1" >/dev/null; }

# The first failure of these ends the script: what follows would be of no use.
must() {
    check "$@"
    [[ $failed -eq 0 ]] || exit 1
}

# ---- the tree

version=$(sed -n 's/^#define ZNC_VERSION_[MP][A-Z]* //p' container/runtime/include/zncontainer.h | paste -sd .)
packaged=$(dpkg-parsechangelog --show-field Version)
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog --show-field Timestamp)
export SOURCE_DATE_EPOCH
unchanged() {
    local changes
    changes=$(git status --porcelain) || return
    printf '%s\n' "$changes"
    [[ -z $changes ]]
}
if [[ -z $rehearse ]]; then must 'the tree is clean' unchanged; fi
newest() { [[ $(grep -m 1 '^## ' NEWS.md) =~ ^"## $version ("[0-9]{4}-[0-9]{2}-[0-9]{2}")"$ ]]; }
must "NEWS.md begins with $version" newest
must "the changelog begins with $version" test "${packaged%-*}" = "$version"
# Files of the packages that are newer get this date; those that are older keep theirs.
must 'its date has passed' test "$SOURCE_DATE_EPOCH" -le "$(date +%s)"
if git rev-parse --quiet --verify "refs/tags/v$version" >/dev/null; then
    must "the tag v$version is this commit" test "$(git rev-parse "v$version^{commit}")" = "$(git rev-parse HEAD)"
fi

# ---- the sources

stem=zncontainer-$version
tarball=$out/$stem.tar.xz
archive() { git archive --prefix="$stem/" HEAD | xz -9 --threads=1 >"$tarball"; }
must 'the source archive is made' archive
mkdir "$work/build"
tar -xf "$tarball" -C "$work/build"
ln "$tarball" "$work/build/zncontainer_$version.orig.tar.xz" 2>/dev/null ||
    cp "$tarball" "$work/build/zncontainer_$version.orig.tar.xz"
source_package() { (cd "$work/build" && dpkg-source --build "$stem"); }
must 'the Debian source package is made' source_package

# ---- the Debian packages

deb_packages() {
    (
        cd "$work/build/$stem"
        # A function that the list of symbols lacks is an error.
        DPKG_GENSYMBOLS_CHECK_LEVEL=2 dpkg-buildpackage -us -uc -b
    )
}
must 'the Debian packages are built' deb_packages
mkdir "$out/debs" "$out/debug" "$out/source"
mv "$work"/build/*-dbgsym_*.deb "$out/debug"
mv "$work"/build/*.deb "$out/debs"
mv "$work"/build/*.{buildinfo,changes} "$out/debs"
mv "$work"/build/*.{dsc,debian.tar.xz} "$out/source"
built=$work/build/$stem/build/debian
ZNC_BUILD_DIR=$built ZNC_DEBS=$out/debs check 'they are right, and lintian finds nothing' \
    tests/system/packages/packages_build.sh
sandbox=$PWD/build/release/bin/znc_sandbox
if [[ -x $sandbox && -d ${ZNC_TEST_CACHE:=$PWD/build/testcache}/packages-root ]]; then
    export ZNC_TEST_CACHE
    ZNC_BUILD_DIR=$built ZNC_DEBS=$out/debs check 'they can be installed, used, upgraded and removed' \
        "$sandbox" -- "$PWD/tests/system/packages/packages_install.sh"
else
    skip 'they can be installed, used, upgraded and removed' 'the tests of build/release have not been run'
fi
if have abidiff; then
    check 'the library is compatible with 1.0.0' scripts/abi.sh "$(realpath "$built/lib/libzncontainer.so.1")"
else
    skip 'the library is compatible with 1.0.0' 'abidiff is not installed'
fi
if [[ -z $once ]]; then
    check 'built again elsewhere they are the same bytes' scripts/reproducible.sh "$out/debs"
else
    skip 'built again elsewhere they are the same bytes' '--once'
fi
check 'the SPDX document is made' scripts/spdx.py "$built" "$out/debs" "$out/$stem.spdx.json"

# ---- other distributions

check 'the recipes for RPM and Alpine are right' scripts/recipes.sh "$out/recipes" "$tarball"
rpm_packages() {
    # The names of what is needed for the build are those of other distributions.
    rpmbuild -bb --nodeps --define "_topdir $work/rpm" --define "_sourcedir $out" --define "_rpmdir $out/rpms" \
        --define 'use_source_date_epoch_as_buildtime 1' --define 'clamp_mtime_to_source_date_epoch 1' \
        --define '_buildhost reproducible' "$out/recipes/zncontainer.spec" && [[ $(find "$out/rpms" -name '*.rpm' | wc -l) -eq 5 ]]
}
if have rpmbuild; then
    check 'the RPM packages are built' rpm_packages
else
    skip 'the RPM packages are built' 'rpmbuild is not installed'
fi

# ---- checksums

sums() {
    (cd "$out" && find . -type f -printf '%P\n' | LC_ALL=C sort | xargs sha256sum) >"$work/sums" &&
        mv "$work/sums" "$out/SHA256SUMS"
}
check 'the checksums are written' sums
finish_checks
