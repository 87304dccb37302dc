// sticky.cpp - restores the sticky bit of directories in a container's root.
#include "base/failure.hpp"
#include "zarnel/fs.h"

#include "base/owned.hpp"
#include "system/open_confined.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

STATUS znDirMakeSticky(const char* root, const char* path)
{
    if (root == nullptr || path == nullptr)
        return znc::fail(EINVAL);
    const znc::UniqueFd top(::open(root, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!top)
        return ERROR;
    // Intermediate links are resolved inside the root; mounts below it do not belong to the
    // container.
    const znc::UniqueFd dir =
        zn::open_confined(top.get(), path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW,
                          RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV);
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return ERROR;
    if ((st.st_mode & S_ISVTX) != 0)
        return OK;
    return ::fchmod(dir.get(), (st.st_mode & 07777U) | S_ISVTX) == 0 ? OK : ERROR;
}
