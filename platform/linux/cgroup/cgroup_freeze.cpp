// cgroup_freeze.cpp - freezes and thaws a group; see cgroup.hpp.
#include "cgroup_tree.hpp"

#include "platform/common/clock.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace zn {
namespace {

constexpr int kFreezeMs = 2000;
constexpr char kStateV1[] = "freezer.state";
constexpr char kStateV2[] = "cgroup.freeze";
constexpr char kEventsV2[] = "cgroup.events";

// Whether all processes of the group are frozen. ENOTSUP if the kernel has no freezer.
int read_frozen(bool unified, int group, bool& frozen)
{
    std::uint64_t value = 0;
    int error = 0;
    if (unified) {
        error = control_value(group, kEventsV2, "frozen", value);
    } else {
        ControlLines lines(group, kStateV1);
        const char* state = lines.next();
        error = lines.error();
        value = state != nullptr && std::strcmp(state, "FROZEN") == 0 ? 1 : 0;
    }
    frozen = value != 0;
    return error == ENOENT ? ENOTSUP : error;
}

int write_frozen(bool unified, int group, bool frozen)
{
    const int error = unified ? control_write(group, kStateV2, frozen ? "1" : "0")
                              : control_write(group, kStateV1, frozen ? "FROZEN" : "THAWED");
    return error == ENOENT ? ENOTSUP : error;
}

// Waits for a change of the group's state: on v2 the kernel reports it, on v1 the kernel updates
// the state only when it is read.
void wait_for_change(int events, int milliseconds)
{
    constexpr int kV1Ms = 1;
    pollfd one = {events, POLLPRI, 0};
    ::poll(&one, events >= 0 ? 1 : 0, events >= 0 ? milliseconds : std::min(milliseconds, kV1Ms));
}

int wait_for(bool unified, int group, bool frozen, std::int64_t deadline)
{
    const znc::UniqueFd events(unified ? control_open(group, kEventsV2, O_RDONLY)
                                       : znc::UniqueFd());
    for (;;) {
        // Reading from this descriptor clears the event that poll() reports.
        char text[256];
        if (events)
            static_cast<void>(::pread(events.get(), text, sizeof text, 0) < 0);
        bool now = false;
        int error = read_frozen(unified, group, now);
        if (error != 0 || now == frozen)
            return error;
        const int left = milliseconds_until(deadline);
        if (left <= 0)
            return ETIMEDOUT;
        wait_for_change(events.get(), left);
        // On v1, a process that was forked during freezing is frozen only when FROZEN is written
        // again.
        error = unified || !frozen ? 0 : write_frozen(unified, group, frozen);
        if (error != 0)
            return error;
    }
}

} // namespace

int group_freeze(const Hierarchies& hierarchies, const GroupPath& path, bool frozen,
                 int milliseconds)
{
    const Hierarchy* in = hierarchies.with(Controller::kFreezer);
    if (in == nullptr)
        return ENOTSUP;
    const znc::UniqueFd group = group_open(*in, path);
    if (!group)
        return errno;
    const std::int64_t deadline = now_ns() + milliseconds * std::int64_t{1000000};
    int error = write_frozen(in->unified, group.get(), frozen);
    if (error == 0)
        error = wait_for(in->unified, group.get(), frozen, deadline);
    if (error != 0 && error != ENOTSUP && frozen)
        static_cast<void>(write_frozen(in->unified, group.get(), false));
    return error;
}

int cgroup_freeze(const Hierarchies& hierarchies, const char* path, bool frozen)
{
    GroupPath group;
    List<int> pids;
    int error = group.set(path);
    if (error == 0 && hierarchies.with(Controller::kFreezer) == nullptr)
        error = ENOTSUP;
    if (error == 0 && frozen)
        error = group_processes(hierarchies, group, pids);
    // A process that froze itself could not thaw anything.
    if (error == 0 && std::binary_search(pids.begin(), pids.end(), ::getpid()))
        error = EBUSY;
    return error != 0 ? error : group_freeze(hierarchies, group, frozen, kFreezeMs);
}

int cgroup_frozen(const Hierarchies& hierarchies, const char* path, bool& frozen)
{
    GroupPath name;
    const int error = name.set(path);
    const Hierarchy* in = hierarchies.with(Controller::kFreezer);
    if (error != 0 || in == nullptr)
        return error != 0 ? error : ENOTSUP;
    const znc::UniqueFd group = group_open(*in, name);
    return group ? read_frozen(in->unified, group.get(), frozen) : errno;
}

bool cgroup_frozen_usual(const char* path, bool& frozen)
{
    GroupPath name;
    if (name.set(path) != 0)
        return false;
    for (const bool unified : {false, true}) {
        const char* const top = unified ? kCgroupTop : "/sys/fs/cgroup/freezer";
        const znc::UniqueFd root(::open(top, O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct statfs fs;
        if (!root || ::fstatfs(root.get(), &fs) != 0 ||
            fs.f_type != (unified ? CGROUP2_SUPER_MAGIC : CGROUP_SUPER_MAGIC))
            continue;
        const znc::UniqueFd group = group_open(root.get(), name.text());
        if (group && read_frozen(unified, group.get(), frozen) == 0)
            return true;
    }
    return false;
}

void cgroup_thaw(const char* path)
{
    const znc::ErrnoSaver keep;
    bool frozen = false;
    if (path[0] != '\0' && cgroup_frozen(path, frozen) == 0 && frozen)
        cgroup_freeze(path, false);
}

} // namespace zn
