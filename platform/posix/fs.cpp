// fs.cpp - what fs.h needs of the system, as far as POSIX has it.
#include "zarnel/fs.h"

#include "base/owned.hpp"
#include "directory_flags.hpp"
#include "platform/common/exchange.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>

namespace {

constexpr int kOpenTrees = 16; // descriptors that nftw keeps open
constexpr int kTries = 100;    // of a walk, while others remove directories

// What this user cannot read is left to sync(). What others have removed needs no sync.
int sync_one(const char* path, const struct stat*, int type, struct FTW*)
{
    if (type == FTW_SL || type == FTW_DNR)
        return 0;
    // O_NONBLOCK: an entry of another type is not waited for; it has nothing to be synced.
    const znc::UniqueFd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (!file && (errno == EACCES || errno == ENOENT))
        return 0;
    if (!file || fstat(file.get(), &st) != 0)
        return -1;
    return (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) || fsync(file.get()) == 0 ? 0 : -1;
}

} // namespace

STATUS znDirExchange(const char* a, const char* b)
{
    return zn::exchange_by_renames(a, b);
}

// POSIX cannot wait for a whole file system. Callers need what they have written below `path`,
// which is synced file by file.
STATUS znFsSync(const char* path)
{
    const znc::UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir)
        return ERROR;
    sync();
    for (int n = 0; n < kTries; ++n)
        if (nftw(path, sync_one, kOpenTrees, FTW_PHYS | FTW_MOUNT) == 0)
            return OK;
        else if (errno != ENOENT) // a directory was removed before it was opened
            return ERROR;
    return ERROR;
}

int znDirOpenAt(int dirFd, const char* name)
{
    const int fd = openat(dirFd, name, zn::kSearchFlags);
    if (fd < 0 && errno == ELOOP)
        errno = ENOTDIR;
    return fd;
}

void znDescriptorPath(int fd, char* path, size_t size)
{
    snprintf(path, size, "/dev/fd/%d", fd);
}

// In POSIX a mount point is a directory whose device differs from that of the directory above.
int znMountedAt(int dirFd, const char* name)
{
    struct stat above;
    struct stat found;
    if (fstat(dirFd, &above) != 0)
        return -1;
    if (fstatat(dirFd, name, &found, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -1;
    return above.st_dev != found.st_dev ? 1 : 0;
}
