#include "engine_join.hpp"

#include "system/own_namespace.hpp"
#include "zarnel/engine.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/ioctl.h>

namespace zn {
namespace {

using znc::UniqueFd;

struct Joinable {
    NsKind kind;
    unsigned long flag;
    const char* name;
    const char* file;
};
constexpr Joinable kJoinable[] = {{NsKind::kIpc, CLONE_NEWIPC, "ipc", "ipc"},
                                  {NsKind::kUts, CLONE_NEWUTS, "uts", "uts"},
                                  {NsKind::kCgroup, CLONE_NEWCGROUP, "cgroup", "cgroup"},
                                  {NsKind::kNetwork, CLONE_NEWNET, "network", "net"},
                                  {NsKind::kTime, CLONE_NEWTIME, "time", "time"}};

} // namespace

int JoinedNamespaces::enter_one(const char* path, const char* file, unsigned long flag)
{
    char own[64];
    std::snprintf(own, sizeof own, "/proc/self/ns/%s", file);
    Left left = {UniqueFd(::open(own, O_RDONLY | O_CLOEXEC)), flag};
    const UniqueFd wanted(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!left.own || !wanted)
        return errno;
    if (left_.append(std::move(left)) == nullptr)
        return ENOMEM;
    return ::setns(wanted.get(), static_cast<int>(flag)) == 0 ? 0 : errno;
}

int JoinedNamespaces::leave_to_child(const char* path, unsigned long flag)
{
    UniqueFd wanted(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!wanted)
        return errno;
    if (::ioctl(wanted.get(), NS_GET_NSTYPE) != static_cast<int>(flag))
        return EINVAL;
    if (later_.append({wanted.get(), flag}) == nullptr ||
        opened_.append(std::move(wanted)) == nullptr)
        return ENOMEM;
    return 0;
}

int JoinedNamespaces::enter(const EngineSettings& settings, Reason& reason)
{
    const bool isRootless = znEngineRootless() != FALSE;
    for (const Joinable& one : kJoinable) {
        if (settings.from(one.kind) != NsChoice::From::kPath)
            continue;
        const char* path = settings.path(one.kind);
        // Joining a namespace that this process is in already needs no rights.
        if (isRootless && is_own_namespace(path, one.file))
            continue;
        const int error = isRootless && one.kind != NsKind::kTime
                              ? leave_to_child(path, one.flag)
                              : enter_one(path, one.file, one.flag);
        if (error != 0)
            return reason.say_errno(error, "linux.namespaces: %s: %s", one.name, path);
    }
    return 0;
}

unsigned long namespaces_to_join(pid_t pid, unsigned long flags)
{
    constexpr struct {
        unsigned long flag;
        const char* file;
    } kAll[] = {{CLONE_NEWPID, "pid"},       {CLONE_NEWIPC, "ipc"}, {CLONE_NEWUTS, "uts"},
                {CLONE_NEWCGROUP, "cgroup"}, {CLONE_NEWNET, "net"}, {CLONE_NEWTIME, "time"}};
    if (znEngineRootless() == FALSE)
        return flags;
    for (const auto& one : kAll) {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%d/ns/%s", pid, one.file);
        if (is_own_namespace(path, one.file))
            flags &= ~one.flag;
    }
    return flags;
}

int JoinedNamespaces::leave()
{
    int error = 0;
    for (const Left& left : left_)
        if (::setns(left.own.get(), static_cast<int>(left.flag)) != 0)
            error = errno;
    left_ = {};
    return error;
}

} // namespace zn
