// msgq_reclaim.cpp - removes queues left by processes that ended. Queues can be listed only through
// a mount of the mqueue file system; a detached one is used, which no other process can see.
#include "zarnel/msgq.h"

#include "base/directory.hpp"

#include "msgq_probe.hpp"
#include "system/pidfd.hpp"

#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/file.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

// The queues of this IPC namespace as a directory; null with errno set.
znc::UniqueDir queue_directory()
{
    const UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, "mqueue", FSOPEN_CLOEXEC)));
    if (!context ||
        ::syscall(SYS_fsconfig, context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return {};
    const UniqueFd mount(
        static_cast<int>(::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC,
                                   MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC)));
    if (!mount)
        return {};
    return znc::directory_listing(mount.get());
}

// True also for a zombie, whose parent may take long to reap it.
bool process_gone(long pid)
{
    if (pid <= 0 || pid > INT32_MAX)
        return false;
    const UniqueFd process = process_open(static_cast<pid_t>(pid));
    return process ? process_ended(process.get(), 0) : errno == ESRCH;
}

// Checking the process alone is not enough: a client in another PID namespace has another process
// id there. The lock alone would be enough only for queues created by this library.
bool reclaim(const char* name, long maker)
{
    if (!process_gone(maker))
        return false;
    const UniqueFd queue(znMsgQOpen(name, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING));
    return queue && ::flock(queue.get(), LOCK_EX | LOCK_NB) == 0 && znMsgQUnlink(name) == OK;
}

long maker_of_probe(const char* name)
{
    long pid = 0;
    unsigned long number = 0;
    char rest = 0;
    return std::sscanf(name, ZN_MSG_Q_PROBE_FORMAT "%c", &pid, &number, &rest) == 2 ? pid : 0;
}

} // namespace
} // namespace zn

using namespace zn;

int znMsgQReclaim(long (*makerOf)(const char* name))
{
    const znc::UniqueDir dir = queue_directory();
    if (!dir)
        return -1;
    int removed = 0;
    while (const dirent* entry = znc::next_entry(dir.get())) {
        char name[sizeof entry->d_name + 1];
        std::snprintf(name, sizeof name, "/%s", entry->d_name);
        long maker = maker_of_probe(name);
        if (maker == 0)
            maker = makerOf(name);
        removed += maker > 0 && reclaim(name, maker) ? 1 : 0;
    }
    return errno == 0 ? removed : -1;
}
