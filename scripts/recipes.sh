#!/usr/bin/env bash
# recipes.sh DIR [TARBALL] - writes the recipe of the RPM packages and that of the Alpine packages for this
# version to DIR, and checks them: the spec file with rpm's parser and rpmlint, the APKBUILD with sh, shellcheck
# and a check of its fields. Alpine's own checker, abuild-lint, is not packaged by Debian. A program that is not
# installed is reported as skipped. Without TARBALL, the APKBUILD has the checksum of nothing.
# shellcheck disable=SC2317 # what is called by way of check
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/support/checks.sh
. tests/support/checks.sh
out=${1:?the directory for the recipes}
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
checked() { "$@" >"$work/log" 2>&1; }
explain_failure() { tail -n 40 "$work/log"; }
skip() { printf 'skipped - %s: %s\n' "$1" "$2"; }

version=$(sed -n 's/^#define ZNC_VERSION_[MP][A-Z]* //p' container/runtime/include/zncontainer.h | paste -sd .)
maintainer=$(sed -n 's/^Maintainer: //p' debian/control)
day=$(LC_ALL=C date --utc --date="@$(dpkg-parsechangelog --show-field Timestamp)" '+%a %b %d %Y')
sum=$(sha512sum "${2-/dev/null}")

sed -e "s/@VERSION@/$version/g" \
    -e "s/@CHANGELOG@/* $day $maintainer - $version-1\\n- NEWS.md lists what changed./" \
    packaging/rpm/zncontainer.spec.in >"$out/zncontainer.spec"
sed -e "s/@VERSION@/$version/g" -e "s/@SHA512@/${sum%% *}/" packaging/alpine/APKBUILD.in >"$out/APKBUILD"

# ---- the spec file

if command -v rpmspec >/dev/null; then
    check 'rpm reads the spec file' rpmspec -P "$out/zncontainer.spec"
    packages() { rpmspec --query --qf '%{NAME} %{VERSION}\n' "$out/zncontainer.spec" | sort | paste -sd ,; }
    five() {
        # The package without a suffix has no %files and is not made, but rpm lists it.
        [[ $(packages) == "libzncontainer1 $version,zncontainer $version,zncontainer-devel $version,zncontainer-import $version,zncontainer-oci $version,zncontainer-tools $version" ||
            $(packages) == "libzncontainer1 $version,zncontainer-devel $version,zncontainer-import $version,zncontainer-oci $version,zncontainer-tools $version" ]]
    }
    check 'it makes five packages of this version' five
else
    skip 'rpm reads the spec file' 'rpm is not installed'
fi
if command -v rpmlint >/dev/null; then
    # Not wanted: a licence, which is not chosen; an address that answers; BuildRoot, which rpm has set itself since
    # 4.6; the macro of one distribution; %{_libdir} for the directories of systemd, which are in lib everywhere.
    cat >"$work/rpmlint.toml" <<'TOML'
Filters = ["invalid-license", "invalid-url", "no-buildroot-tag", "lib-package-without-%mklibname",
    "hardcoded-library-path in %{_prefix}/lib/(tmpfiles|sysctl).d"]
TOML
    check 'rpmlint finds nothing in it' rpmlint --strict --config "$work/rpmlint.toml" "$out/zncontainer.spec"
else
    skip 'rpmlint finds nothing in it' 'rpmlint is not installed'
fi

# ---- the APKBUILD

check 'sh reads the APKBUILD' sh -n "$out/APKBUILD"
# Unused: abuild reads these variables.
check 'shellcheck finds nothing in it' shellcheck --shell=sh --exclude=SC2034,SC2154 "$out/APKBUILD"
field() { sh -c '. "$1" && eval "printf %s \"\$$2\""' sh "$out/APKBUILD" "$1"; }
for name in pkgname pkgver pkgrel pkgdesc url arch license makedepends subpackages source sha512sums; do
    check "it has $name" test -n "$(field $name)"
done
check 'it has this version' test "$(field pkgver)" = "$version"
short() { [[ $(field pkgdesc) =~ ^[^a-z].{1,127}$ ]]; }
check 'its description has at most 128 characters' short
known_machines() { not grep -qvxE 'x86_64|aarch64|armv7|riscv64|s390x|ppc64le|all|noarch' <(field arch | tr ' ' '\n'); }
check 'its machines have names that Alpine knows' known_machines
splits() {
    local part
    for part in $(field subpackages); do
        [[ $part != *:* ]] || grep -q "^${part#*:}() {" "$out/APKBUILD" || {
            printf 'no function for %s\n' "$part"
            return 1
        }
    done
}
check 'each subpackage has its function' splits
only_tabs() { not grep -nE '^ +' "$out/APKBUILD"; }
check 'it is indented by tabs' only_tabs
summed() { [[ $(field sha512sums | awk 'NF { print $2 }') == "$(field source)" ]]; }
check 'each source has its checksum' summed
for name in build package; do check "it has $name()" grep -qx "$name() {" "$out/APKBUILD"; done
finish_checks
