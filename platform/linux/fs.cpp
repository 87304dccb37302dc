// fs.cpp - what fs.h needs of Linux: renameat2, syncfs, O_PATH, /proc.
#include "zarnel/fs.h"

#include "base/owned.hpp"
#include "platform/common/exchange.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

STATUS znDirExchange(const char* a, const char* b)
{
    if (renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE) == 0)
        return OK;
    return errno == EINVAL || errno == ENOSYS ? zn::exchange_by_renames(a, b) : ERROR;
}

STATUS znFsSync(const char* path)
{
    const znc::UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return dir && syncfs(dir.get()) == 0 ? OK : ERROR;
}

int znDirOpenAt(int dirFd, const char* name)
{
    const int fd = openat(dirFd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ELOOP)
        errno = ENOTDIR;
    return fd;
}

void znDescriptorPath(int fd, char* path, size_t size)
{
    snprintf(path, size, "/proc/self/fd/%d", fd);
}
