// root_file.cpp - opens files and directories of a container's root for reading, and finds mounts.
#include "base/failure.hpp"
#include "zarnel/fs.h"

#include "base/owned.hpp"
#include "system/open_confined.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

znc::UniqueFd open_in_root(int root, const char* path, int flags)
{
    return zn::open_confined(root, path, flags, RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
}

// Opens for reading what was opened with O_PATH, if it is a regular file. Opening a device or a
// FIFO for reading may block or have side effects.
int reopen_regular(const znc::UniqueFd& found)
{
    struct stat st = {};
    if (!found || ::fstat(found.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode))
        return znc::fail(S_ISDIR(st.st_mode) ? EISDIR : S_ISLNK(st.st_mode) ? ELOOP : EINVAL);
    char reopened[64];
    znDescriptorPath(found.get(), reopened, sizeof reopened);
    return ::open(reopened, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

} // namespace

int znFileOpenInRoot(int rootFd, const char* path)
{
    return reopen_regular(open_in_root(rootFd, path, O_PATH));
}

int znDirOpenInRoot(int rootFd, const char* path)
{
    return open_in_root(rootFd, path, O_RDONLY | O_DIRECTORY).release();
}

int znMountedAt(int dirFd, const char* name)
{
    const znc::UniqueFd entry(::openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry)
        return errno == ENOENT ? 0 : -1;
    struct statx above = {};
    struct statx found = {};
    if (::statx(dirFd, "", AT_EMPTY_PATH, STATX_MNT_ID, &above) != 0 ||
        ::statx(entry.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &found) != 0)
        return -1;
    if ((above.stx_mask & found.stx_mask & STATX_MNT_ID) == 0)
        return znc::fail(ENOTSUP);
    return above.stx_mnt_id != found.stx_mnt_id ? 1 : 0;
}

int znFileOpenAt(int dirFd, const char* name)
{
    return reopen_regular(znc::UniqueFd(::openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC)));
}
