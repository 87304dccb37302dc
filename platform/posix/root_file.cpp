// root_file.cpp - files and directories of a container's root.
#include "zarnel/fs.h"

#include "base/failure.hpp"
#include "root_walk.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// The type is checked before the file is opened, since opening a device or a FIFO may block or have
// side effects, and again afterwards, since POSIX cannot open what was checked.
int open_regular_at(int dir, const char* name)
{
    struct stat found;
    struct stat opened;
    if (fstatat(dir, name, &found, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    if (!S_ISREG(found.st_mode))
        return znc::fail(S_ISDIR(found.st_mode) ? EISDIR : S_ISLNK(found.st_mode) ? ELOOP : EINVAL);
    znc::UniqueFd file(
        openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || fstat(file.get(), &opened) != 0)
        return -1;
    return S_ISREG(opened.st_mode) ? file.release() : znc::fail(EINVAL);
}

} // namespace

int znFileOpenAt(int dirFd, const char* name)
{
    return open_regular_at(dirFd, name);
}

int znFileOpenInRoot(int rootFd, const char* path)
{
    zn::RootWalk walk(rootFd);
    return walk.resolve(path, true) ? open_regular_at(walk.directory(), walk.entry()) : -1;
}

int znDirOpenInRoot(int rootFd, const char* path)
{
    zn::RootWalk walk(rootFd);
    if (!walk.resolve(path, true))
        return -1;
    return openat(walk.directory(), walk.entry(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

STATUS znDirMakeSticky(const char* root, const char* path)
{
    if (root == nullptr || path == nullptr)
        return znc::fail(EINVAL);
    const znc::UniqueFd top(open(root, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!top)
        return ERROR;
    zn::RootWalk walk(top.get(), true);
    if (!walk.resolve(path, false))
        return ERROR;
    const znc::UniqueFd dir(
        openat(walk.directory(), walk.entry(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat above;
    struct stat st;
    if (!dir || fstat(top.get(), &above) != 0 || fstat(dir.get(), &st) != 0)
        return ERROR;
    if (st.st_dev != above.st_dev)
        return znc::fail(EXDEV);
    if ((st.st_mode & S_ISVTX) != 0)
        return OK;
    return fchmod(dir.get(), (st.st_mode & 07777U) | S_ISVTX) == 0 ? OK : ERROR;
}
