// ns_mount.cpp - see ns_mount.hpp.
#include "ns_mount.hpp"

#include "base/file.hpp"
#include "cgroup/cgroup.hpp"
#include "keeper_request.hpp"
#include "ns_record.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {

using znc::MallocPtr;
using znc::UniqueFd;

struct NamespaceMounts::Entry {
    Entry* next;
    std::uint64_t id; // mount id, by which the keeper recognises the mount
    char destination[kRootPathMax];
};

UniqueFd detached_tree(const char* path, const MountPlan& plan, const UserNamespace& user)
{
    const unsigned recursive = plan.recursive ? AT_RECURSIVE : 0;
    UniqueFd tree(static_cast<int>(
        ::syscall(SYS_open_tree, AT_FDCWD, path, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | recursive)));
    if (!tree)
        return tree;
    mount_attr attr = {};
    attr.attr_set = plan.attrSet;
    attr.attr_clr = plan.attrClear;
    attr.propagation = plan.propagation;
    UniqueFd owners;
    if (plan.mapped) {
        owners = user.open_namespace();
        if (!owners)
            return owners;
        attr.attr_set |= MOUNT_ATTR_IDMAP;
        attr.userns_fd = static_cast<std::uint64_t>(owners.get());
    }
    if (::syscall(SYS_mount_setattr, tree.get(), "", AT_EMPTY_PATH | recursive, &attr,
                  sizeof attr) != 0)
        return UniqueFd();
    return tree;
}

namespace {

constexpr const char* kGroupsTop[] = {"nosuid", "nodev", "noexec", "mode=755", "size=64k", nullptr};

int mount_tree(Keeper& keeper, const UserNamespace& user, const char* source,
               const char* destination, const MountPlan& plan, std::uint64_t* id)
{
    // A relative path would be resolved from the daemon's working directory.
    if (source == nullptr || *source != '/' || (plan.mapped && !user))
        return EINVAL;
    const UniqueFd tree = detached_tree(source, plan, user);
    if (!tree)
        return errno;
    wire::Request request = {};
    request.op = wire::Op::kMountTree;
    request.isDirectory = znc::is_directory(tree.get());
    RequestText text;
    if (!text.add(destination))
        return ENAMETOOLONG;
    return keeper.ask(text.of(request), text.all(), tree.get(), id);
}

// Appends the options of a plan; the kernel takes owners as ids of the host.
int add_options(const MountPlan& plan, const UserNamespace& user, RequestText& text)
{
    const char* option = plan.options;
    for (unsigned i = 0; i < plan.optionCount; i++, option += std::strlen(option) + 1) {
        std::uint32_t id = 0;
        const bool uid = std::sscanf(option, "uid=%u", &id) == 1;
        if (!user || (!uid && std::sscanf(option, "gid=%u", &id) != 1)) {
            if (!text.add(option))
                return ENAMETOOLONG;
            continue;
        }
        const auto host = uid ? user.host_uid(id) : user.host_gid(id);
        if (!host)
            return EINVAL;
        char mapped[16];
        std::snprintf(mapped, sizeof mapped, "%s=%u", uid ? "uid" : "gid", *host);
        if (!text.add(mapped))
            return ENAMETOOLONG;
    }
    return 0;
}

int mount_fs(Keeper& keeper, const UserNamespace& user, const char* destination,
             const MountPlan& plan, std::uint64_t* id)
{
    wire::Request request = {};
    request.op = wire::Op::kMountFs;
    request.attributes = plan.attrSet;
    RequestText text;
    if (!text.add(destination) || !text.add(plan.type))
        return ENAMETOOLONG;
    if (const int error = add_options(plan, user, text); error != 0)
        return error;
    return keeper.ask(text.of(request), text.all(), -1, id);
}

// Mounts the group in each hierarchy on a directory named like the hierarchy; the unified one, if
// it is the only one, on the destination itself. A new mount of the type would show all groups of
// the host, since the keeper is in none of the container's.
int mount_groups(Keeper& keeper, const UserNamespace& user, const char* group,
                 const char* destination, std::uint64_t* id)
{
    List<GroupDirectory> groups;
    int error = group[0] != '\0' ? cgroup_directories(group, groups) : ENODEV;
    if (error != 0)
        return error;
    MountPlan plan;
    plan.attrSet = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
    plan.propagation = MS_PRIVATE;
    if (groups[0].name[0] == '\0')
        return mount_tree(keeper, user, groups[0].path.get(), destination, plan, id);
    MountPlan top;
    static_cast<void>(mount_plan_make("tmpfs", kGroupsTop, false, top));
    error = mount_fs(keeper, user, destination, top, id);
    for (const GroupDirectory& one : groups) {
        char point[kRootPathMax + NAME_MAX + 2];
        std::snprintf(point, sizeof point, "%s/%s", destination, one.name.get());
        std::uint64_t part = 0;
        if (error == 0)
            error = mount_tree(keeper, user, one.path.get(), point, plan, &part);
    }
    return error;
}

bool is_group_type(const MountPlan& plan)
{
    return !plan.bind &&
           (std::strcmp(plan.type, "cgroup") == 0 || std::strcmp(plan.type, "cgroup2") == 0);
}

} // namespace

NamespaceMounts::~NamespaceMounts()
{
    while (newest_ != nullptr) {
        const MallocPtr<Entry> entry(newest_);
        newest_ = entry->next;
    }
}

int NamespaceMounts::mount(Keeper& keeper, const UserNamespace& user, const char* group,
                           const char* source, const char* destination, const char* type,
                           const char* const* options)
{
    if (std::strlen(destination) >= kRootPathMax)
        return ENAMETOOLONG;
    MallocPtr<Entry> entry = znc::malloc_zeroed<Entry>();
    if (!entry)
        return ENOMEM;
    std::strcpy(entry->destination, destination);
    MountPlan plan;
    struct stat st;
    // A relative source counts as existing, so that it is treated as a bind and refused.
    const bool exists =
        source != nullptr && *source != '\0' && (*source != '/' || ::stat(source, &st) == 0);
    int error = mount_plan_make(type, options, exists, plan);
    if (error == 0)
        error = plan.bind ? mount_tree(keeper, user, source, destination, plan, &entry->id)
                : is_group_type(plan) ? mount_groups(keeper, user, group, destination, &entry->id)
                                      : mount_fs(keeper, user, destination, plan, &entry->id);
    if (error != 0)
        return error;
    entry->next = newest_;
    newest_ = entry.release();
    return 0;
}

int NamespaceMounts::unmount(Keeper& keeper, const char* destination)
{
    Entry** at = &newest_;
    while (*at != nullptr && std::strcmp((*at)->destination, destination) != 0)
        at = &(*at)->next;
    if (*at == nullptr)
        return EINVAL;
    wire::Request request = {};
    request.op = wire::Op::kUnmount;
    request.value = (*at)->id;
    const int error = keeper_tell(keeper, request, destination);
    if (error != 0 && error != ESRCH)
        return error;
    const MallocPtr<Entry> done(*at);
    *at = done->next;
    return error;
}

// Each mount is a line "ID PATH" that ends with a NUL, the newest one first.
int NamespaceMounts::save(List<char>& text) const
{
    for (const Entry* entry = newest_; entry != nullptr; entry = entry->next) {
        char line[kRootPathMax + 24];
        const int len =
            std::snprintf(line, sizeof line, "%llu %s", static_cast<unsigned long long>(entry->id),
                          entry->destination);
        for (int i = 0; i <= len; i++)
            if (text.append(line[i]) == nullptr)
                return ENOMEM;
    }
    return 0;
}

int NamespaceMounts::restore(std::string_view text)
{
    Entry** last = &newest_;
    while (!text.empty()) {
        const std::size_t end = text.find('\0');
        const std::size_t space = text.find(' ');
        if (end == std::string_view::npos || space >= end || end - space > kRootPathMax)
            return EINVAL;
        MallocPtr<Entry> entry = znc::malloc_zeroed<Entry>();
        if (!entry)
            return ENOMEM;
        unsigned long long id = 0;
        if (std::sscanf(text.data(), "%llu ", &id) != 1)
            return EINVAL;
        entry->id = id;
        std::strcpy(entry->destination, text.data() + space + 1);
        *last = entry.release();
        last = &(*last)->next;
        text.remove_prefix(end + 1);
    }
    return 0;
}

} // namespace zn
