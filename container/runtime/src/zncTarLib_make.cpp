// zncTarLib_make.cpp - creates members in the current parent directory: on disk, or in the tree of
// a dry run. Only this file has to distinguish the two.
#include "zncTarLib.hpp"

#include "base/failure.hpp"
#include "zarnel/fs.h"
#include "zncTarDryTree.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace znc {
namespace {

constexpr mode_t kPermBits = 0777;

mode_t permissions(int mode)
{
    return static_cast<mode_t>(mode) & kPermBits;
}

} // namespace

bool tar_enter(MT_TAR_SOFT& ctrl, const char* name) noexcept
{
    if (ctrl.run.dry != nullptr)
        return ctrl.run.dry->enter(name);
    const int fd = znDirOpenAt(tar_parent(ctrl), name);
    if (fd < 0)
        return false;
    ctrl.parentFd.reset(fd);
    return true;
}

void tar_leave(MT_TAR_SOFT& ctrl) noexcept
{
    if (ctrl.run.dry != nullptr)
        ctrl.run.dry->leave();
    ctrl.parentFd.reset();
    ctrl.parentLen = 0;
}

// The directory is created with mode 0700 and then gets its mode; if that fails, it is removed.
STATUS tar_make_directory(const MT_TAR_SOFT& ctrl, const char* name, int mode,
                          UniqueFd* dir) noexcept
{
    if (ctrl.run.dry != nullptr)
        return ctrl.run.dry->make(name, TarDryTree::Kind::kDirectory);
    const int parent = tar_parent(ctrl);
    if (mkdirat(parent, name, S_IRWXU) != 0)
        return ERROR;
    dir->reset(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (*dir && fchmod(dir->get(), permissions(mode)) == 0)
        return OK;
    unlinkat(parent, name, AT_REMOVEDIR);
    return ERROR;
}

STATUS tar_make_symlink(const MT_TAR_SOFT& ctrl, const char* target, const char* name) noexcept
{
    if (ctrl.run.dry == nullptr)
        return symlinkat(target, tar_parent(ctrl), name) == 0 ? OK : ERROR;
    if (*target != '\0')
        return ctrl.run.dry->make(name, TarDryTree::Kind::kLink);
    return znc::fail(ENOENT);
}

STATUS tar_make_file(const MT_TAR_SOFT& ctrl, const char* name, int mode, UniqueFd* file) noexcept
{
    if (ctrl.run.dry != nullptr)
        return ctrl.run.dry->make_file(name);
    file->reset(znFileCreateAt(tar_parent(ctrl), name, permissions(mode)));
    return *file ? OK : ERROR;
}

} // namespace znc
