// cgroup_remove.cpp - kills the processes in a group and removes it; see cgroup.hpp.
#include "cgroup_tree.hpp"

#include "platform/common/clock.hpp"
#include "system/pidfd.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kRemoveMs = 2000;
constexpr std::int64_t kTreeNs = 10 * kNsPerSec; // more, to remove groups without processes
constexpr int kFreezeMs =
    100; // in each round; a process that cannot be frozen is killed as it runs
constexpr int kRetryMs = 1;
constexpr int kUnifiedRounds = 50;  // before processes are killed one by one, too
constexpr std::size_t kBatch = 128; // process descriptors open at the same time

void pause_ms(int milliseconds)
{
    const znc::ErrnoSaver keep;
    const timespec time = to_timespec(milliseconds * std::int64_t{1000000});
    ::nanosleep(&time, nullptr);
}

// Removes a group that has none below it. The kernel reports EBUSY for a short time after the last
// process has ended.
int remove_one(int parent, const char* name, std::int64_t deadline)
{
    while (::unlinkat(parent, name, AT_REMOVEDIR) != 0) {
        if (errno == ENOENT || errno == ENODEV)
            return 0;
        if (errno != EBUSY || now_ns() >= deadline)
            return errno;
        pause_ms(kRetryMs);
    }
    return 0;
}

// A container may create more groups than can be removed before the deadline: the remaining ones
// are removed by the next call.
struct RemoveVisit final : GroupVisit {
    explicit RemoveVisit(std::int64_t end) : deadline(end) {}
    int leave(int parent, const char* name) override
    {
        return now_ns() < deadline + kTreeNs ? remove_one(parent, name, deadline) : EBUSY;
    }
    std::int64_t deadline;
};

// Kills some processes of the group. A process id may be reused between reading and killing, so
// each process is opened first and killed only if the group still lists its id after that.
int kill_batch(const Hierarchies& hierarchies, const GroupPath& path, std::span<const int> pids)
{
    UniqueFd open[kBatch];
    for (std::size_t i = 0; i < pids.size(); i++)
        if (pids[i] > 0)
            open[i] = process_open(pids[i]);
    List<int> still;
    const int error = group_processes(hierarchies, path, still);
    for (std::size_t i = 0; error == 0 && i < pids.size(); i++)
        if (open[i] && std::binary_search(still.begin(), still.end(), pids[i]))
            process_signal(open[i].get(), SIGKILL);
    return error;
}

// Freezes the processes, so that they cannot fork, and kills them one by one.
int kill_listed(const Hierarchies& hierarchies, const GroupPath& path)
{
    List<int> pids;
    static_cast<void>(group_freeze(hierarchies, path, true, kFreezeMs));
    int error = group_processes(hierarchies, path, pids);
    for (std::size_t at = 0; error == 0 && at < pids.size(); at += kBatch)
        error = kill_batch(hierarchies, path,
                           pids.all().subspan(at, std::min(kBatch, pids.size() - at)));
    static_cast<void>(group_freeze(hierarchies, path, false, kFreezeMs));
    return error;
}

// Kills all processes of the group at once, where the kernel can: v2 since Linux 5.14.
bool kill_unified(const Hierarchies& hierarchies, const GroupPath& path)
{
    bool killed = false;
    for (const Hierarchy& one : hierarchies.all) {
        const UniqueFd group = one.unified ? group_open(one, path) : UniqueFd();
        if (group && control_write(group.get(), "cgroup.kill", "1") == 0)
            killed = true;
    }
    return killed;
}

// Returns when the group has no processes. EBUSY at the deadline, or if this process is in the
// group.
int kill_all(const Hierarchies& hierarchies, const GroupPath& path, std::int64_t deadline)
{
    for (int round = 0;; round++) {
        List<int> pids;
        int error = group_processes(hierarchies, path, pids);
        if (error != 0 || pids.empty())
            return error;
        if (std::binary_search(pids.begin(), pids.end(), ::getpid()) || now_ns() >= deadline)
            return EBUSY;
        // A process may be in the group in v1 hierarchies only, which cgroup.kill does not reach.
        if (!kill_unified(hierarchies, path) || round >= kUnifiedRounds)
            error = kill_listed(hierarchies, path);
        if (error != 0)
            return error;
        pause_ms(kRetryMs);
    }
}

int remove_in(const Hierarchy& in, const GroupPath& path, std::int64_t deadline)
{
    const UniqueFd group = group_open(in, path);
    if (!group)
        return errno == ENOENT ? 0 : errno;
    int error = subgroups_remove(group.get(), deadline);
    GroupPath above;
    path.first(path.parts() - 1, above);
    const UniqueFd parent = group_open(in, above);
    if (error == 0 && !parent)
        error = errno;
    return error != 0 ? error : remove_one(parent.get(), path.name(), deadline);
}

// Removes a group that has neither processes nor groups below it, the usual case. False if part of
// it may remain.
bool remove_empty(const Hierarchies& hierarchies, const GroupPath& path)
{
    for (const Hierarchy& one : hierarchies.all)
        if (::unlinkat(one.root.get(), path.text(), AT_REMOVEDIR) != 0 && errno != ENOENT)
            return false;
    return true;
}

} // namespace

int subgroups_remove(int group, std::int64_t deadline)
{
    RemoveVisit visit(deadline);
    return groups_visit(group, visit);
}

int cgroup_remove(const Hierarchies& hierarchies, const char* path)
{
    GroupPath group;
    int error = group.set(path);
    if (error != 0 || remove_empty(hierarchies, group))
        return error;
    const std::int64_t deadline = now_ns() + kRemoveMs * std::int64_t{1000000};
    error = kill_all(hierarchies, group, deadline);
    if (error != 0)
        return error == ENOENT ? 0 : error;
    // Continue if one cannot be removed.
    for (const Hierarchy& one : hierarchies.all) {
        const int failed = remove_in(one, group, deadline);
        if (error == 0)
            error = failed;
    }
    return error;
}

} // namespace zn
