// sticky.cpp - restores the sticky bit of directories in a container's root.
#include "zarnel/fs.h"

#include "base/owned.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

STATUS znDirMakeSticky(const char* root, const char* path)
{
    if (root == nullptr || path == nullptr) {
        errno = EINVAL;
        return ERROR;
    }
    const znc::UniqueFd top(::open(root, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!top)
        return ERROR;
    // Intermediate links are resolved inside the root; mounts below it do not belong to the
    // container.
    open_how how = {};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    const znc::UniqueFd dir(
        static_cast<int>(::syscall(SYS_openat2, top.get(), path, &how, sizeof how)));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return ERROR;
    if ((st.st_mode & S_ISVTX) != 0)
        return OK;
    return ::fchmod(dir.get(), (st.st_mode & 07777U) | S_ISVTX) == 0 ? OK : ERROR;
}
