// cgroup_mark.cpp - marks a group as that of a container; see cgroup.hpp.
#include "cgroup_known.hpp"

#include <cerrno>
#include <cstring>
#include <sys/xattr.h>

namespace zn {
namespace {

using znc::UniqueFd;

// Only the host's root can set a trusted attribute; a container that may write to its group cannot.
constexpr char kAttribute[] = "trusted.zncontainer";
constexpr std::size_t kMarkMax = 64;

enum class Owner { kNone, kSame, kOther };

Owner owner_of(int group, const char* mark)
{
    char text[kMarkMax + 1];
    const ssize_t len = ::fgetxattr(group, kAttribute, text, sizeof text);
    if (len < 0)
        return errno == ENODATA || errno == ENOTSUP ? Owner::kNone : Owner::kOther;
    const std::string_view found(text, static_cast<std::size_t>(len));
    return found == mark ? Owner::kSame : Owner::kOther;
}

// Ends with EBUSY at a process.
struct ProcessVisit final : GroupVisit {
    int enter(int group) override
    {
        ControlLines processes(group, "cgroup.procs");
        return processes.next() != nullptr ? EBUSY : 0;
    }
};

// Ends with EBUSY at a group of another container that has processes. Groups without processes do
// not count: a runtime inside the container may have created and marked them.
struct ForeignVisit final : GroupVisit {
    explicit ForeignVisit(const char* own) : mark(own) {}
    int enter(int group) override
    {
        ProcessVisit processes;
        const bool foreign = group != checked && owner_of(group, mark) == Owner::kOther;
        return foreign ? groups_visit(group, processes) : 0;
    }
    const char* mark;
    int checked = -1; // the group itself, which is not foreign
};

// Whether the group has the mark. EBUSY if it has another, or one below it is in use by another.
int find_mark(const Hierarchies& hierarchies, const GroupPath& path, const char* mark,
              bool& isMarked)
{
    ForeignVisit visit(mark);
    for (const Hierarchy& one : hierarchies.all) {
        const UniqueFd group = group_open(one, path);
        if (!group && errno == ENOENT)
            continue;
        const Owner owner = group ? owner_of(group.get(), mark) : Owner::kNone;
        int error = group ? 0 : errno;
        visit.checked = group.get();
        if (error == 0)
            error = owner == Owner::kOther ? EBUSY : groups_visit(group.get(), visit);
        if (error != 0)
            return error;
        isMarked = isMarked || owner == Owner::kSame;
    }
    return 0;
}

} // namespace

int cgroup_mark(const char* path, const char* mark)
{
    const KnownHierarchies known;
    GroupPath name;
    int error = known.error() != 0 ? known.error() : name.set(path);
    for (const Hierarchy& one : known.get().all) {
        const UniqueFd group = error == 0 ? group_open(one, name) : UniqueFd();
        if (!group)
            return error != 0 ? error : errno;
        if (::fsetxattr(group.get(), kAttribute, mark, std::strlen(mark), 0) != 0 &&
            errno != EPERM && errno != ENOTSUP)
            error = errno;
    }
    return error;
}

int cgroup_remove_marked(const char* path, const char* mark)
{
    const KnownHierarchies known;
    GroupPath name;
    bool isMarked = false;
    List<int> pids;
    int error = known.error() != 0 ? known.error() : name.set(path);
    if (error == 0)
        error = find_mark(known.get(), name, mark, isMarked);
    if (error == 0 && !isMarked)
        error = group_processes(known.get(), name, pids);
    if (error == ENOENT)
        return 0;
    if (error != 0 || !pids.empty())
        return error != 0 ? error : EBUSY;
    return cgroup_remove(known.get(), path);
}

} // namespace zn
