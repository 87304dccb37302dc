// root_file.cpp - opens a file of a container's root for reading.
#include "zarnel/fs.h"

#include "base/owned.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

int znFileOpenInRoot(int rootFd, const char* path)
{
    // O_PATH first: opening a device or a FIFO for reading may block or have side effects.
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    const znc::UniqueFd found(
        static_cast<int>(::syscall(SYS_openat2, rootFd, path, &how, sizeof how)));
    struct stat st = {};
    if (!found || ::fstat(found.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    char reopened[64];
    znDescriptorPath(found.get(), reopened, sizeof reopened);
    return ::open(reopened, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}
