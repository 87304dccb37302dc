#include "engine_cgroup.hpp"

#include "base/failure.hpp"
#include "cgroup/cgroup_tree.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

namespace zn {
namespace {

using znc::UniqueFd;

// The group in one hierarchy, as a detached mount.
UniqueFd group_mount(const Hierarchy& hierarchy, const GroupPath& path, EngineMount wanted)
{
    char source[4096];
    const int len =
        std::snprintf(source, sizeof source, "%s/%s", hierarchy.point.get(), path.text());
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof source)
        return znc::fail(ENAMETOOLONG, UniqueFd());
    wanted.plan.bind = true;
    wanted.plan.recursive = false;
    return engine_mount_make(wanted, source, -1, nullptr);
}

const char* base_name(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// "cpu,cpuacct" is also found as "cpu" and as "cpuacct".
int add_links(int directory, const char* name)
{
    std::string_view left = name;
    if (left.find(',') == left.npos)
        return 0;
    while (!left.empty()) {
        const std::size_t end = std::min(left.find(','), left.size());
        char one[64];
        std::snprintf(one, sizeof one, "%.*s", static_cast<int>(end), left.data());
        if (::symlinkat(name, directory, one) != 0 && errno != EEXIST)
            return errno;
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    return 0;
}

// The directory that holds the hierarchies.
int add_directory(const EngineMount& wanted, const Hierarchies& hierarchies,
                  znc::List<CgroupMount>& mounts)
{
    EngineMount place;
    place.plan.type = "tmpfs";
    place.plan.attrSet = wanted.plan.attrSet;
    place.whole = wanted.whole;
    if (!mount_plan_keep("mode=755", place.plan))
        return ENOMEM;
    CgroupMount top;
    top.mount = detached_filesystem(place.plan, "cgroup");
    if (!top.mount)
        return errno;
    for (const Hierarchy& one : hierarchies.all) {
        const char* name = base_name(one.point.get());
        if (::mkdirat(top.mount.get(), name, 0755) != 0)
            return errno;
        if (const int error = add_links(top.mount.get(), name); error != 0)
            return error;
    }
    if (!engine_mount_seal(top.mount.get(), place))
        return errno;
    return mounts.append(std::move(top)) != nullptr ? 0 : ENOMEM;
}

} // namespace

int engine_cgroup_mounts(const char* group, const EngineMount& wanted,
                         znc::List<CgroupMount>& mounts)
{
    Hierarchies hierarchies;
    GroupPath path;
    int error = hierarchies_read(hierarchies);
    if (error == 0)
        error = path.set(group);
    const bool isSingle = hierarchies.version == CgroupVersion::kV2;
    if (error == 0 && !isSingle)
        error = add_directory(wanted, hierarchies, mounts);
    if (error != 0)
        return error;
    for (const Hierarchy& one : hierarchies.all) {
        CgroupMount part;
        if (!isSingle)
            std::snprintf(part.name, sizeof part.name, "%s", base_name(one.point.get()));
        part.mount = group_mount(one, path, wanted);
        if (!part.mount)
            return errno;
        if (mounts.append(std::move(part)) == nullptr)
            return ENOMEM;
    }
    return 0;
}

} // namespace zn
