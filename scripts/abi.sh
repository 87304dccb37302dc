#!/usr/bin/env bash
# abi.sh LIBRARY - compares a library that was built with debug information with version 1.0.0, whose functions and
# types are in tests/data/libzncontainer-1.0.0.abi (written by abidw). Functions may be added. Anything removed or
# changed is printed, and fails. Needs abidiff (Debian: abigail-tools).
set -euo pipefail
cd "$(dirname "$0")/.."
library=${1:?the library}
if ! readelf --sections --wide "$library" | grep -q '[.]debug_info'; then
    printf 'abi.sh: %s has no debug information\n' "$library" >&2
    exit 2
fi
status=0
abidiff --no-added-syms --headers-dir2 container/runtime/include tests/data/libzncontainer-1.0.0.abi "$library" ||
    status=$?
# 1 and 2 are errors of the program; 4: something changed; 8: what uses the library breaks.
if [[ $status -ne 0 ]]; then
    printf 'abi.sh: not compatible with 1.0.0 (abidiff: %d)\n' "$status" >&2
    exit 1
fi
names=$(grep -c '<elf-symbol ' tests/data/libzncontainer-1.0.0.abi)
printf 'compatible with 1.0.0: %d functions\n' "$names"
