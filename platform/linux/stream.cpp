// stream.cpp - splice, and reopening descriptors through /proc.
#include "zarnel/stream.h"

#include "base/failure.hpp"
#include "base/owned.hpp"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

ssize_t znStreamMove(int from, int to, size_t most)
{
    ssize_t n;
    do
        n = ::splice(from, nullptr, to, nullptr, most, SPLICE_F_NONBLOCK | SPLICE_F_MOVE);
    while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EINVAL) // a file opened with O_APPEND, among others
        errno = ENOTSUP;
    return n;
}

int znStreamReopen(int fd)
{
    struct stat st = {};
    if (::fstat(fd, &st) != 0)
        return -1;
    if (!S_ISFIFO(st.st_mode) && ::isatty(fd) == 0)
        return znc::fail(EINVAL);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0)
        return -1;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return ::open(path, (flags & O_ACCMODE) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}
