// ns_terminal.cpp - pseudo-terminals of namespaces.
#include "zarnel/ns_control.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "system/open_confined.hpp"
#include "zarnel/fs.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

namespace {

using znc::fail;
using znc::UniqueFd;

constexpr int kTerminalFlags = O_RDWR | O_NOCTTY | O_CLOEXEC;

// The container's processes may have put anything at this path, and opening a FIFO or a device may
// block or have side effects.
bool is_terminal_master(int fd)
{
    struct stat st = {};
    struct statfs system = {};
    return ::fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == makedev(5, 2) &&
           ::fstatfs(fd, &system) == 0 && system.f_type == DEVPTS_SUPER_MAGIC;
}

} // namespace

STATUS znnsTerminalOpen(nsid_t ns, int* master, int* user)
{
    const UniqueFd root(znnsRootOpen(ns));
    if (!root)
        return ERROR;
    const UniqueFd found = zn::open_confined(root.get(), "dev/pts/ptmx", O_PATH | O_NOFOLLOW,
                                             RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS);
    if (!found || !is_terminal_master(found.get()))
        return fail(ENOENT);
    char path[64];
    znDescriptorPath(found.get(), path, sizeof path);
    UniqueFd opened(::open(path, kTerminalFlags));
    const int unlocked = 0;
    if (!opened || ::ioctl(opened.get(), TIOCSPTLCK, &unlocked) != 0)
        return ERROR;
    // Not by a path: another process could have mounted something over the file system.
    const int peer = ::ioctl(opened.get(), TIOCGPTPEER, kTerminalFlags);
    if (peer < 0)
        return ERROR;
    *master = opened.release();
    *user = peer;
    return OK;
}
