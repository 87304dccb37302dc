// requirement.cpp - checks what the system offers. Most checks make a system call with invalid
// arguments, and only ENOSYS means that it is missing; some create a memfd or a queue and remove
// it.
#include "zarnel/requirement.h"

#include "base/owned.hpp"
#include "cgroup/cgroup.hpp"
#include "launch.hpp"
#include "zarnel/msgq.h"

#include <array>
#include <fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <mqueue.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace zn {
namespace {

bool has_namespaces()
{
    for (const char* name : {"/proc/self/ns/pid", "/proc/self/ns/mnt", "/proc/self/ns/ipc",
                             "/proc/self/ns/uts", "/proc/self/ns/cgroup", "/proc/self/ns/net"})
        if (::access(name, F_OK) != 0)
            return false;
    return true;
}

template <class... Arguments> bool has_call(long number, Arguments... arguments)
{
    return ::syscall(number, arguments...) >= 0 || errno != ENOSYS;
}

bool has_mount_calls()
{
    return has_call(SYS_open_tree, -1, "", 0) && has_call(SYS_move_mount, -1, "", -1, "", 0) &&
           has_call(SYS_fsconfig, -1, 0, nullptr, nullptr, 0) &&
           has_call(SYS_mount_setattr, -1, "", 0, nullptr, 0);
}

bool has_openat2()
{
    const open_how how = {};
    return has_call(SYS_openat2, -1, "", &how, sizeof how);
}

bool has_pidfd()
{
    const znc::UniqueFd fd(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    return static_cast<bool>(fd);
}

bool has_close_range()
{
    return has_call(SYS_close_range, ~0U, ~0U, 0);
}

bool has_filters()
{
    return ::prctl(PR_GET_SECCOMP) >= 0 &&
           (::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, nullptr) == 0 || errno == EFAULT);
}

// The helper program is executed from a memfd, which no process can write to.
bool has_executable_memfd()
{
    return static_cast<bool>(helper_file());
}

bool has_queues()
{
    // znMsgQReclaim removes a queue of this name if this process is killed.
    const std::string name = "/zn-probe-" + std::to_string(::getpid()) + "-0";
    mq_attr attr = {};
    attr.mq_maxmsg = 1;
    attr.mq_msgsize = 1;
    const mqd_t queue = ::mq_open(name.data(), O_RDWR | O_CREAT | O_EXCL, 0600, &attr);
    if (queue < 0) // exhausted by other processes at the moment
        return errno == EMFILE || errno == ENFILE || errno == ENOSPC;
    ::mq_close(queue);
    ::mq_unlink(name.data());
    return true;
}

// The limit is high enough, or the caller is root and may exceed or raise it.
bool has_long_queues()
{
    const znc::UniqueFd file(::open("/proc/sys/fs/mqueue/msg_max", O_RDONLY | O_CLOEXEC));
    std::array<char, 32> text{};
    if (!file || ::read(file.get(), text.data(), text.size() - 1) <= 0)
        return false;
    return std::strtoul(text.data(), nullptr, 10) >= ZN_MSG_Q_LONGEST || ::geteuid() == 0;
}

bool has_overlay()
{
    const znc::UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, "overlay", FSOPEN_CLOEXEC)));
    return context || errno == EPERM;
}

bool has_control_groups()
{
    return cgroup_version() != CgroupVersion::kNone;
}

struct Requirement {
    const char* text;
    bool needed;
    bool (*met)();
    const char* without;
};

constexpr std::array kRequirements = {
    Requirement{"namespaces for processes, mounts, IPC, host names, control groups and networks",
                true, has_namespaces, "no containers can be created"},
    Requirement{"mount calls on descriptors (open_tree, move_mount, fsconfig, mount_setattr)", true,
                has_mount_calls, "mounts would follow symbolic links in images"},
    Requirement{"openat2", true, has_openat2, "paths could not be confined to a root"},
    Requirement{"process descriptors (pidfd_open)", true, has_pidfd,
                "a reused process id could refer to another process"},
    Requirement{"close_range", true, has_close_range,
                "descriptors of a client could leak into its containers"},
    Requirement{"system call filters (seccomp)", true, has_filters,
                "programs could not be kept from dangerous system calls"},
    Requirement{"executable memory files (vm.memfd_noexec below 2)", true, has_executable_memfd,
                "containers could not be created; sysctl vm.memfd_noexec=1 allows them"},
    Requirement{"POSIX message queues", true, has_queues, "clients could not send requests"},
    Requirement{"queues of 32 messages (fs.mqueue.msg_max)", true, has_long_queues,
                "the request queue could not be created"},
    Requirement{"the overlay file system", false, has_overlay,
                "each bundle can be used by one container only, and layers are not shared"},
    Requirement{"control groups (v1 or v2)", false, has_control_groups,
                "containers have no limits and cannot be paused"},
};

} // namespace
} // namespace zn

BOOL znRequirementGet(size_t index, znRequirement* requirement)
{
    if (index >= zn::kRequirements.size())
        return FALSE;
    const zn::Requirement& found = zn::kRequirements[index];
    *requirement = {found.text, found.without, found.needed ? TRUE : FALSE,
                    found.met() ? TRUE : FALSE};
    return TRUE;
}
