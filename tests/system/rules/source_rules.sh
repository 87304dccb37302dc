#!/usr/bin/env bash
# source_rules.sh DIR - checks rules for the source code that compilers do not check. Prints one line per
# rule.
set -u
cd "${1:?the source directory}" || exit 1
failed=0
product="base format platform container front cli daemon import"

# forbid NAME PATTERN PATH...: checks that no line of these trees matches.
forbid() {
    local name=$1 pattern=$2 found
    shift 2
    found=$(grep -rnE --include='*.[ch]pp' --include='*.[ch]' --include='*.sh' --include=run \
        -e "$pattern" -- "$@")
    if [[ -z $found ]]; then
        printf 'ok - %s\n' "$name"
    else
        printf 'not ok - %s\n%s\n' "$name" "$found"
        failed=1
    fi
}

# shellcheck disable=SC2086
forbid 'no timed queue calls: their clock jumps' 'mq_timed[a-z]*\(' $product
# shellcheck disable=SC2086
forbid 'no wait follows a clock that jumps' \
    'gettimeofday\(|system_clock::|pthread_(cond|mutex|rwlock)_timed|sem_timedwait|timerfd_create\(CLOCK_REALTIME|TIMER_ABSTIME.*REALTIME|nanosleep\(CLOCK_REALTIME' \
    $product
linux_headers='^[[:space:]]*#[[:space:]]*include[[:space:]]*<(linux/|asm/|sched\.h|mqueue\.h|sys/(mount|pidfd|prctl|capability|signalfd|epoll|syscall|vfs|xattr|inotify|eventfd|timerfd|sysmacros)\.h)'
forbid 'Linux headers stay in platform/linux: library' "$linux_headers" container platform/include
forbid 'Linux headers stay in platform/linux: front ends' "$linux_headers" base format front cli
# POSIX has these two of them.
forbid 'Linux headers stay in platform/linux: the other platform' \
    "$(sed -E 's/sched\\\.h\|mqueue\\\.h\|//' <<<"$linux_headers")" platform/posix platform/common
forbid 'Linux calls stay in platform/linux: the other platform' \
    '\<(O_PATH|O_TMPFILE|AT_EMPTY_PATH|SYS_[a-z]|syscall|openat2|renameat2|statx|syncfs|splice|memfd_create|flock|close_range|unshare|setns|prctl|gettid|sched_getaffinity|getxattr|pidfd_[a-z_]+)\>[ (]|"/(proc|sys)/' \
    platform/posix platform/common
import_sources=$(find import -name '*.[ch]pp' ! -name confine.cpp)
import_headers=${linux_headers/|xattr/} # images contain attributes and device numbers
# shellcheck disable=SC2086
forbid 'Linux headers stay in platform/linux: import, but for what confines it' \
    "${import_headers/|sysmacros/}" $import_sources
forbid 'the daemon uses signalfd and nothing else of Linux' \
    "${linux_headers/|signalfd/}" daemon
forbid 'what /proc and /sys say is read in platform/linux' '"/(proc|sys)/' base format container front daemon cli import platform/common platform/posix
forbid 'the library has no code for one kernel' '__linux__|__gnu_linux__' container platform/include
forbid 'the library neither ends the process nor prints on the side' \
    'std::cerr|\<abort\(|\<_?exit\(|\<_Exit\(|fprintf\(stderr' container/runtime/src
forbid 'the library gives back what it takes by type' \
    '(^|[^_[:alnum:].>])(std::)?(free|fclose|closedir|cJSON_Delete)\(' container/runtime/src/*.cpp
forbid 'scripts do not throw failures away' '\|\| (true|:)' \
    scripts/*.sh tests/*/*.sh .ci/run

# A call or a constant may span several lines: join each up to its semicolon before searching.
# A call may use a constant (kDirFlags); then the constant must contain O_CLOEXEC.
statements() {
    find base format container platform import -name '*.[ch]pp' -o -name '*.[ch]' | while IFS= read -r file; do
        tr '\n' ' ' <"$file" | grep -oE "$1" | sed "s|^|$file: |"
    done
}
opens=$(
    statements '(^|[^_[:alnum:].>])(::)?(open|openat|openat2)\([^;]*;' |
        grep -vE 'O_CLOEXEC|k[A-Za-z]*Flags|open\(const '
    statements 'k[A-Za-z]*Flags =[^;]*\<O_[^;]*;' | grep -vE 'O_CLOEXEC|= k[A-Za-z]*Flags'
)
if [[ -z $opens ]]; then
    printf 'ok - every open closes on exec\n'
else
    printf 'not ok - every open closes on exec\n%s\n' "$opens"
    failed=1
fi

exit $failed
