#!/usr/bin/env bash
# source_arrows_test.sh DIR WORK - the folders of DIR use only what they may, and source_arrows.py notices
# when they do not: it is given copies of the sources in which one thing is wrong.
set -u
# shellcheck source=tests/support/checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/checks.sh"
source=${1:?the source directory} work=${2:?a directory of its own}
arrows=$source/tests/system/rules/source_arrows.py

copy() {
    rm -rf "$work" && mkdir -p "$work" &&
        cp -r "$source"/{base,format,platform,container,front,daemon,cli,import,docs} "$work"
}

# notices TEXT: the copy is refused with this text.
# shellcheck disable=SC2317
notices() {
    local said
    said=$(python3 "$arrows" "$work") && return 1
    [[ $said == *"$1"* ]]
}

# add LINE FILE: at the end of a file of the copy.
add() { printf '%s\n' "$1" >>"$work/$2"; }

check 'the sources keep to the rules' python3 "$arrows" "$source"
copy
check 'a copy keeps to them too' python3 "$arrows" "$work"
add '#include "import/options.hpp"' cli/main.cpp
check 'a front end that includes a file of another' notices 'cli/main.cpp includes import/options.hpp'
copy
add '#include "zncUtil.hpp"' platform/linux/fs.cpp
check 'the platform that includes a file of the library' notices 'platform/linux/fs.cpp includes container/'
copy
add '#include "platform/linux/ns_user.hpp"' platform/common/path_trust.cpp
check 'what platforms share that includes a file of one' notices 'platform/common/path_trust.cpp includes platform/linux/'
copy
add '#include "platform/linux/ns_user.hpp"' platform/posix/ns.cpp
check 'a platform that includes a file of another' notices 'platform/posix/ns.cpp includes platform/linux/'
copy
add '#include "front/output.hpp"' base/file.hpp
check 'the base that includes anything' notices 'base/file.hpp includes front/output.hpp'
copy
add 'target_link_libraries(zncctl PRIVATE zncctl_import)' cli/CMakeLists.txt
check 'a front end that links another' notices 'cli/ links a library of import/'
copy
add 'target_link_libraries(zn_platform PRIVATE znc_runtime)' platform/linux/CMakeLists.txt
check 'the platform that links the library' notices 'platform/linux/ links a library of container/'
copy
add '#include "output.hpp"' front/command.hpp
check 'files that include each other' notices 'front/command.hpp'
copy
add '#include "cli/containers/container.hpp"' cli/images/sticky.cpp
check 'folders that use each other' notices 'cli/containers -> cli/images -> cli/containers'
rm -rf "$work"
finish_checks
