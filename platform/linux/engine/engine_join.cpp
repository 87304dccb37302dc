#include "engine_join.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>

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

int JoinedNamespaces::enter(const EngineSettings& settings, Reason& reason)
{
    for (const Joinable& one : kJoinable) {
        if (settings.from(one.kind) != NsChoice::From::kPath)
            continue;
        const char* path = settings.path(one.kind);
        if (const int error = enter_one(path, one.file, one.flag); error != 0)
            return reason.say_errno(error, "linux.namespaces: %s: %s", one.name, path);
    }
    return 0;
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
