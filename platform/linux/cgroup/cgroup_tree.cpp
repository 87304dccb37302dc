#include "cgroup_tree.hpp"

#include "base/directory.hpp"

#include "system/mount_table.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

constexpr char kProcs[] = "cgroup.procs";

constexpr const char* kControllerNames[kControllers] = {
    "cpu", "cpuacct", "cpuset", "memory", "devices", "freezer", "blkio", "pids", "hugetlb"};

// The controllers among the options of a v1 mount: "rw,cpu,cpuacct".
unsigned controllers_of(char* options)
{
    unsigned found = 0;
    char* save = nullptr;
    for (const char* option = ::strtok_r(options, ",", &save); option != nullptr;
         option = ::strtok_r(nullptr, ",", &save))
        for (unsigned i = 0; i < kControllers; i++)
            if (std::strcmp(option, kControllerNames[i]) == 0)
                found |= 1U << i;
    return found;
}

bool is_top(const char* point)
{
    return std::strcmp(point, kCgroupTop) == 0;
}

bool is_below_top(const char* point)
{
    constexpr std::size_t kLen = sizeof kCgroupTop - 1;
    return std::strncmp(point, kCgroupTop, kLen) == 0 && point[kLen] == '/' &&
           std::strchr(point + kLen + 1, '/') == nullptr;
}

bool is_writable(int directory, const char* path)
{
    return ::faccessat(directory, path, W_OK, AT_EACCESS) == 0;
}

// The path of this process's group in v2, without "/" at its beginning. False if it is outside the
// cgroup namespace or there is none.
bool read_own_group(char (&path)[PATH_MAX])
{
    const znc::UniqueFd directory(::open("/proc/self", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory)
        return false;
    ControlLines lines(directory.get(), "cgroup");
    while (const char* line = lines.next())
        if (std::strncmp(line, "0::/", 4) == 0 && std::strncmp(line + 3, "/..", 3) != 0)
            return static_cast<std::size_t>(std::snprintf(
                       path, sizeof path, "%s", line[4] != '\0' ? line + 4 : ".")) < sizeof path;
    return false;
}

enum class Usable { kNo, kDelegated, kYes };

// Whether the file system of the mount is the one that is visible at its mount point, where this
// process may create groups.
Usable is_usable(const Mount& mount, const Hierarchy& hierarchy)
{
    if (hierarchy.device != mount.device)
        return Usable::kNo;
    const int root = hierarchy.root.get();
    if (is_writable(root, "."))
        return Usable::kYes;
    char own[PATH_MAX];
    return is_top(mount.point) && read_own_group(own) && is_writable(root, own) ? Usable::kDelegated
                                                                                : Usable::kNo;
}

bool is_known(const Hierarchies& hierarchies, dev_t device)
{
    return std::any_of(hierarchies.all.begin(), hierarchies.all.end(),
                       [&](const Hierarchy& one) { return one.device == device; });
}

// False with errno set.
bool open_root(const char* point, int flags, Hierarchy& hierarchy)
{
    struct stat st = {};
    hierarchy.root.reset(::open(point, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    if (!hierarchy.root || ::fstat(hierarchy.root.get(), &st) != 0)
        return false;
    hierarchy.device = st.st_dev;
    return true;
}

// Appends a hierarchy whose root is open. 0 or an error number.
int add_open(Hierarchies& hierarchies, const char* point, bool unified, unsigned controllers,
             Hierarchy one)
{
    one.point = znc::copy_text(point);
    one.unified = unified;
    one.controllers = controllers;
    if (!one.point || hierarchies.all.append(std::move(one)) == nullptr)
        return ENOMEM;
    if (controllers != 0)
        hierarchies.version = CgroupVersion::kV1;
    else if (unified && hierarchies.version == CgroupVersion::kNone)
        hierarchies.version = CgroupVersion::kV2;
    return 0;
}

int read_processes(int group, List<int>& pids)
{
    ControlLines lines(group, kProcs);
    while (const char* line = lines.next())
        if (pids.append(std::atoi(line)) == nullptr)
            return ENOMEM;
    // A threaded group of v2 lists no processes; those to which its threads belong are listed by a
    // group above it. A group that was just removed has none.
    const bool none = lines.error() == EOPNOTSUPP || lines.error() == ENODEV;
    return none ? 0 : lines.error();
}

struct ProcessVisit final : GroupVisit {
    explicit ProcessVisit(List<int>& to) : pids(to) {}
    int enter(int group) override { return read_processes(group, pids); }
    List<int>& pids;
};

// The names of the groups directly below one.
int child_names(int group, List<Text>& names)
{
    const znc::UniqueDir dir = znc::directory_listing(group);
    if (!dir)
        return errno == ENOENT || errno == ENODEV ? 0 : errno;
    while (const dirent* entry = znc::next_entry(dir.get())) {
        if (entry->d_type != DT_DIR)
            continue;
        Text name = znc::copy_text(entry->d_name);
        if (!name || names.append(std::move(name)) == nullptr)
            return ENOMEM;
    }
    return errno;
}

// The names that are still to be visited, for each level from the top to the current group.
class GroupLevels {
  public:
    int descend(int group)
    {
        Level level;
        const int error = child_names(group, level.names);
        if (error != 0)
            return error;
        if (depth_ < levels_.size())
            levels_[depth_] = std::move(level);
        else if (levels_.append(std::move(level)) == nullptr)
            return ENOMEM;
        depth_++;
        return 0;
    }
    void ascend() { levels_[--depth_] = Level(); }
    [[nodiscard]] bool done() const { return depth_ == 0; }
    // The next name at the lowest level; null when all were visited.
    const char* next()
    {
        Level& level = levels_[depth_ - 1];
        return level.at < level.names.size() ? level.names[level.at++].get() : nullptr;
    }
    // The name returned last at the lowest level.
    const char* current()
    {
        const Level& level = levels_[depth_ - 1];
        return level.names[level.at - 1].get();
    }

  private:
    struct Level {
        List<Text> names;
        std::size_t at = 0;
    };
    List<Level> levels_;
    std::size_t depth_ = 0;
};

} // namespace

const Hierarchy* Hierarchies::with(Controller controller) const
{
    const Hierarchy* unified = nullptr;
    for (const Hierarchy& one : all) {
        if ((one.controllers & 1U << static_cast<unsigned>(controller)) != 0)
            return &one;
        if (one.unified)
            unified = &one;
    }
    return unified;
}

int hierarchies_add(Hierarchies& hierarchies, const char* point, bool unified, unsigned controllers)
{
    Hierarchy one;
    if (!open_root(point, 0, one))
        return errno;
    return add_open(hierarchies, point, unified, controllers, std::move(one));
}

int hierarchies_read(Hierarchies& hierarchies)
{
    MountTable table;
    Mount mount;
    bool unifiedTop = false;
    while (table.next(mount)) {
        const bool unified = std::strcmp(mount.type, "cgroup2") == 0;
        if (!unified && std::strcmp(mount.type, "cgroup") != 0)
            continue;
        const bool top = unified && is_top(mount.point);
        if ((!top && !is_below_top(mount.point)) || unifiedTop ||
            is_known(hierarchies, mount.device))
            continue;
        Hierarchy one;
        const Usable usable =
            open_root(mount.point, O_NOFOLLOW, one) ? is_usable(mount, one) : Usable::kNo;
        if (usable == Usable::kNo)
            continue;
        unifiedTop = top;
        one.delegated = usable == Usable::kDelegated;
        const int error = add_open(hierarchies, mount.point, unified,
                                   unified ? 0 : controllers_of(mount.options), std::move(one));
        if (error != 0)
            return error;
    }
    // "unified" alone, with no controller mounted, would have no limits.
    if (!unifiedTop && hierarchies.version == CgroupVersion::kV2)
        hierarchies.version = CgroupVersion::kNone;
    return table.complete() ? 0 : EIO;
}

int GroupPath::set(const char* path)
{
    if (path == nullptr || ::strnlen(path, kCgroupPathMax + 1) > kCgroupPathMax)
        return EINVAL;
    char* out = text_;
    parts_ = 0;
    for (path += std::strspn(path, "/"); *path != '\0'; path += std::strspn(path, "/")) {
        const std::string_view part(path, std::strcspn(path, "/"));
        if (part == "." || part == "..")
            return EINVAL;
        if (parts_++ != 0)
            *out++ = '/';
        out = std::copy(part.begin(), part.end(), out);
        path += part.size();
    }
    *out = '\0';
    return parts_ != 0 ? 0 : EINVAL;
}

// A process may be moved by who may write to the "cgroup.procs" of the lowest group that contains
// both the old and the new one, and may create groups in directories that are theirs.
bool group_may_create(const Hierarchies& hierarchies, const char* path)
{
    GroupPath wanted;
    if (wanted.set(path) != 0 || hierarchies.version == CgroupVersion::kNone)
        return false;
    const Hierarchy& first = hierarchies.all[0];
    if (!first.delegated)
        return true;
    char own[PATH_MAX];
    if (!read_own_group(own))
        return false;
    GroupPath existing;
    GroupPath common;
    for (unsigned parts = 0; parts <= wanted.parts(); parts++) {
        GroupPath prefix;
        wanted.first(parts, prefix);
        const std::string_view text = prefix.text();
        if (group_open(first, prefix))
            existing = prefix;
        if (parts == 0 || (std::string_view(own).starts_with(text) &&
                           (own[text.size()] == '/' || own[text.size()] == '\0')))
            common = prefix;
    }
    const znc::UniqueFd above = group_open(first, existing);
    const znc::UniqueFd both = group_open(first, common);
    return above && both && is_writable(above.get(), ".") && is_writable(both.get(), kProcs);
}

void GroupPath::first(unsigned parts, GroupPath& prefix) const
{
    const char* end = text_;
    for (unsigned i = 0; i < parts; i++)
        end += std::strcspn(end + 1, "/") + 1;
    const std::string_view part = parts != 0 ? std::string_view(text_, end) : ".";
    *std::copy(part.begin(), part.end(), prefix.text_) = '\0';
    prefix.parts_ = parts;
}

const char* GroupPath::name() const
{
    const char* slash = std::strrchr(text_, '/');
    return slash != nullptr ? slash + 1 : text_;
}

namespace {

// A directory has two links and one more for each directory in it, in this file system.
bool has_subgroups(int group)
{
    struct stat st = {};
    return ::fstat(group, &st) != 0 || st.st_nlink != 2;
}

} // namespace

int groups_visit(int top, GroupVisit& visit)
{
    int error = visit.enter(top);
    if (error != 0 || !has_subgroups(top))
        return error;
    GroupLevels levels;
    znc::UniqueFd at(::openat(top, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    error = at ? levels.descend(at.get()) : errno;
    while (error == 0 && !levels.done()) {
        if (const char* name = levels.next()) {
            znc::UniqueFd below = group_open(at.get(), name);
            if (!below) {
                error = errno == ENOENT || errno == ENODEV ? 0 : errno;
                continue;
            }
            at = std::move(below);
            error = visit.enter(at.get());
            if (error == 0)
                error = levels.descend(at.get());
            continue;
        }
        levels.ascend();
        if (levels.done())
            break;
        // A group cannot be moved to another parent, so ".." is the group from which the walk came.
        at.reset(::openat(at.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        error = at ? visit.leave(at.get(), levels.current()) : errno;
    }
    return error;
}

int group_processes(const Hierarchies& hierarchies, const GroupPath& path, List<int>& pids)
{
    bool found = false;
    List<int> all;
    ProcessVisit visit(all);
    for (const Hierarchy& one : hierarchies.all) {
        const znc::UniqueFd group = group_open(one, path);
        if (!group && errno == ENOENT)
            continue;
        const int error = group ? groups_visit(group.get(), visit) : errno;
        if (error != 0)
            return error;
        found = true;
    }
    std::sort(all.begin(), all.end());
    for (std::size_t i = 0; i < all.size(); i++)
        if ((i == 0 || all[i] != all[i - 1]) && pids.append(all[i]) == nullptr)
            return ENOMEM;
    return found ? 0 : ENOENT;
}

} // namespace zn
