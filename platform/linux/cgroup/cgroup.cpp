// cgroup.cpp - creates control groups and lists the files through which processes enter them; see
// cgroup.hpp.
#include "cgroup_tree.hpp"

#include "platform/common/clock.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kTries = 8;               // if other processes remove the parents
constexpr int kLeftoverMs = 2000;       // to remove groups left below an empty group
constexpr char kCpus[] = "cpuset.cpus"; // v1 and v2
constexpr char kMems[] = "cpuset.mems";

bool has_word(const char* line, const char* word)
{
    const std::size_t len = std::strlen(word);
    for (const char* at = line; at != nullptr && (at = std::strstr(at, word)) != nullptr; at += len)
        if ((at == line || at[-1] == ' ') && (at[len] == ' ' || at[len] == '\0'))
            return true;
    return false;
}

// Enables in `parent` the controllers that limits and statistics need (cgroup.subtree_control).
// Errors are ignored: limits of a missing controller are refused later. The kernel refuses this
// for a group, other than the root, that contains processes.
void enable_controllers(int parent)
{
    ControlLines available(parent, "cgroup.controllers");
    ControlLines enabled(parent, "cgroup.subtree_control");
    const char* all = available.next();
    const char* on = enabled.next();
    for (const char* name : {"cpu", "cpuset", "io", "memory", "pids", "hugetlb"}) {
        if (all == nullptr || !has_word(all, name) || (on != nullptr && has_word(on, name)))
            continue;
        char text[16];
        std::snprintf(text, sizeof text, "+%s", name);
        static_cast<void>(control_write(parent, "cgroup.subtree_control", text));
    }
}

// Copies a list of processors or memory nodes from the parent, unless the group has one.
int inherit_list(int parent, int group, const char* file)
{
    ControlLines own(group, file);
    const char* line = own.next();
    if (line != nullptr && *line != '\0')
        return 0;
    if (own.error() != 0)
        return own.error();
    ControlLines above(parent, file);
    const char* list = above.next();
    return list != nullptr ? control_write(group, file, list) : above.error();
}

// Sets the parameters that a v1 group needs before a process can enter it.
int prepare_v1(const Hierarchy& in, int parent, int group)
{
    int error = 0;
    if ((in.controllers & 1U << static_cast<unsigned>(Controller::kCpuset)) != 0) {
        error = inherit_list(parent, group, kCpus);
        if (error == 0)
            error = inherit_list(parent, group, kMems);
    }
    // Before Linux 5.11, the limits of a group did not apply to the groups below it by default.
    std::uint64_t hierarchical = 1;
    if (error == 0 && (in.controllers & 1U << static_cast<unsigned>(Controller::kMemory)) != 0 &&
        control_number(group, "memory.use_hierarchy", hierarchical) == 0 && hierarchical == 0)
        error = control_write(group, "memory.use_hierarchy", "1");
    return error;
}

// A group that was created in one hierarchy.
struct Made {
    const Hierarchy* in = nullptr;
    unsigned existing = 0; // components of the path that existed before
};

// Removes the groups that this process created, from the bottom up. A parent in which another
// process has created a group since then is kept.
void undo(const Made& made, const GroupPath& path)
{
    const znc::ErrnoSaver keep;
    for (unsigned parts = path.parts(); parts > made.existing; parts--) {
        GroupPath group;
        GroupPath parent;
        path.first(parts, group);
        path.first(parts - 1, parent);
        const UniqueFd dir = group_open(*made.in, parent);
        if (!dir || ::unlinkat(dir.get(), group.name(), AT_REMOVEDIR) != 0)
            return;
    }
}

// Creates the component number `part` of the path in its parent.
int make_part(const GroupPath& path, unsigned part, UniqueFd& at, Made& made)
{
    GroupPath prefix;
    path.first(part, prefix);
    if (made.in->unified)
        enable_controllers(at.get());
    const bool created = ::mkdirat(at.get(), prefix.name(), 0755) == 0;
    if (!created && errno != EEXIST)
        return errno;
    if (!created && made.existing == part - 1)
        made.existing = part;
    UniqueFd group = group_open(at.get(), prefix.name());
    if (!group)
        return errno;
    const int error = made.in->unified ? 0 : prepare_v1(*made.in, at.get(), group.get());
    at = std::move(group);
    return error;
}

int make_once(const GroupPath& path, Made& made)
{
    GroupPath top;
    path.first(0, top);
    UniqueFd at = group_open(*made.in, top);
    int error = at ? 0 : errno;
    for (unsigned part = 1; error == 0 && part <= path.parts(); part++)
        error = make_part(path, part, at, made);
    return error;
}

// Creates a group in one call if its parent exists and the hierarchy needs no more than that.
// A cgroup directory contains no symbolic links, so that the path needs no further check.
bool make_directly(const GroupPath& path, Made& made)
{
    constexpr unsigned kPrepared = 1U << static_cast<unsigned>(Controller::kCpuset) |
                                   1U << static_cast<unsigned>(Controller::kMemory);
    if (made.in->unified || (made.in->controllers & kPrepared) != 0 ||
        ::mkdirat(made.in->root.get(), path.text(), 0755) != 0)
        return false;
    made.existing = path.parts() - 1;
    return true;
}

// Creates the group in one hierarchy. Another creation that fails at the same time may remove a
// parent that it made; then the parent is made again.
int make_group(const GroupPath& path, Made& made)
{
    int error = 0;
    if (make_directly(path, made))
        return 0;
    for (int i = 0; i < kTries; i++) {
        made.existing = 0;
        error = make_once(path, made);
        if (error == 0)
            return 0;
        undo(made, path);
        if (error != ENOENT && error != ENODEV)
            return error;
    }
    return error;
}

void undo(const List<Made>& all, const GroupPath& path)
{
    for (const Made& made : all)
        undo(made, path);
}

// Creates the group in all hierarchies. `all`: what was created, also on failure.
int make_groups(const Hierarchies& hierarchies, const GroupPath& path, List<Made>& all)
{
    for (const Hierarchy& one : hierarchies.all) {
        Made made = {&one, path.parts()};
        if (const int error = make_group(path, made); error != 0)
            return error;
        if (all.append(made) == nullptr) {
            undo(made, path);
            return ENOMEM;
        }
    }
    return 0;
}

// "A/B"; null without memory.
Text join(const char* directory, const char* name)
{
    const std::size_t size = std::strlen(directory) + std::strlen(name) + 2;
    Text path = znc::malloc_array<char>(size);
    if (path)
        std::snprintf(path.get(), size, "%s/%s", directory, name);
    return path;
}

// OK also if there is no freezer or no group: nothing is frozen then.
int thaw(const Hierarchies& hierarchies, const GroupPath& path)
{
    const int error = group_freeze(hierarchies, path, false, kLeftoverMs);
    return error == ENOTSUP || error == ENOENT ? 0 : error;
}

// Makes an existing group without processes usable: it may be frozen, and groups left below it
// prevent processes from entering it on v2.
int take_over(const Hierarchies& hierarchies, const GroupPath& path)
{
    List<int> pids;
    int error = group_processes(hierarchies, path, pids);
    if (error == ENOENT)
        return 0;
    if (error == 0 && !pids.empty())
        return EBUSY;
    if (error == 0)
        error = thaw(hierarchies, path);
    const std::int64_t deadline = now_ns() + kLeftoverMs * std::int64_t{1000000};
    for (const Hierarchy& one : hierarchies.all) {
        const UniqueFd group = group_open(one, path);
        if (error == 0 && group)
            error = subgroups_remove(group.get(), deadline);
        if (error != 0 || !group || !one.unified)
            continue;
        ControlLines enabled(group.get(), "cgroup.subtree_control");
        const char* on = enabled.next();
        for (const char* name : {"cpu", "cpuset", "io", "memory", "pids", "hugetlb"}) {
            char text[16];
            std::snprintf(text, sizeof text, "-%s", name);
            if (error == 0 && on != nullptr && has_word(on, name))
                error = control_write(group.get(), "cgroup.subtree_control", text);
        }
    }
    return error;
}

} // namespace

int cgroup_create(const Hierarchies& hierarchies, const char* path, const Resources& resources,
                  const char** field)
{
    GroupPath group;
    *field = nullptr;
    int error = group.set(path);
    if (error == 0 && hierarchies.version == CgroupVersion::kNone)
        error = ENOTSUP;
    if (error == 0)
        error = take_over(hierarchies, group);
    List<Made> all;
    if (error == 0)
        error = make_groups(hierarchies, group, all);
    if (error == 0)
        error = limits_apply(hierarchies, group, resources, field);
    if (error != 0)
        undo(all, group);
    return error;
}

int cgroup_complete(const Hierarchies& hierarchies, const char* path, int pid,
                    const Resources& resources, const char** field)
{
    GroupPath group;
    *field = nullptr;
    int error = group.set(path);
    const bool exists =
        error == 0 && std::any_of(hierarchies.all.begin(), hierarchies.all.end(),
                                  [&](const Hierarchy& one) { return !!group_open(one, group); });
    if (error == 0 && !exists)
        error = ENOENT;
    List<Made> all;
    if (error == 0)
        error = make_groups(hierarchies, group, all);
    // If the service manager uses a group again, an earlier container may have left it frozen.
    if (error == 0)
        error = thaw(hierarchies, group);
    char number[16];
    std::snprintf(number, sizeof number, "%d", pid);
    for (const Hierarchy& one : hierarchies.all) {
        const UniqueFd directory = error == 0 ? group_open(one, group) : UniqueFd();
        if (error == 0)
            error = directory ? control_write(directory.get(), "cgroup.procs", number) : errno;
    }
    if (error == 0)
        error = limits_apply(hierarchies, group, resources, field);
    if (error != 0)
        undo(all, group);
    return error;
}

int cgroup_limit(const Hierarchies& hierarchies, const char* path, const Resources& resources,
                 const char** field)
{
    GroupPath group;
    *field = nullptr;
    const int error = group.set(path);
    return error != 0 ? error : limits_apply(hierarchies, group, resources, field);
}

int cgroup_directories(const Hierarchies& hierarchies, const char* path,
                       List<GroupDirectory>& directories)
{
    GroupPath group;
    const int error = group.set(path);
    if (error != 0)
        return error;
    for (const Hierarchy& one : hierarchies.all) {
        const UniqueFd dir = group_open(one, group);
        if (!dir && errno == ENOENT)
            continue;
        if (!dir)
            return errno;
        const char* const point = one.point.get();
        const char* const name =
            std::strcmp(point, kCgroupTop) == 0 ? "" : std::strrchr(point, '/') + 1;
        GroupDirectory found = {join(point, group.text()), znc::copy_text(name)};
        if (!found.path || !found.name || directories.append(std::move(found)) == nullptr)
            return ENOMEM;
    }
    return directories.empty() ? ENOENT : 0;
}

int cgroup_entries(const Hierarchies& hierarchies, const char* path, List<Text>& entries)
{
    List<GroupDirectory> directories;
    const int error = cgroup_directories(hierarchies, path, directories);
    if (error != 0)
        return error;
    for (const GroupDirectory& one : directories) {
        Text entry = join(one.path.get(), "cgroup.procs");
        if (!entry || entries.append(std::move(entry)) == nullptr)
            return ENOMEM;
    }
    return 0;
}

int cgroup_processes(const Hierarchies& hierarchies, const char* path, List<int>& pids)
{
    GroupPath group;
    List<int> all;
    int error = group.set(path);
    if (error == 0)
        error = group_processes(hierarchies, group, all);
    for (const int pid : all)
        if (error == 0 && pid > 0 && pids.append(pid) == nullptr)
            error = ENOMEM;
    return error;
}

bool cgroup_contains(const char* group, const char* path)
{
    GroupPath above;
    GroupPath below;
    if (above.set(group) != 0 || below.set(path) != 0)
        return true;
    const std::string_view start = above.text();
    const std::string_view text = below.text();
    return text == start || (text.starts_with(start) && text[start.size()] == '/');
}

} // namespace zn
