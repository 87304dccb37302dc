// cgroup_known.cpp - see cgroup_known.hpp; and the functions of cgroup.hpp that create and change
// groups, in the hierarchies of this machine.
#include "cgroup_known.hpp"

#include "platform/common/clock.hpp"

#include <cstring>
#include <fcntl.h>
#include <linux/stat.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

// Identity and modification time of a directory, to detect changes.
struct Place {
    std::uint64_t mount = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0; // 0: there is none
    std::int64_t changed = 0;

    [[nodiscard]] bool is_same_directory(const Place& other) const
    {
        return inode != 0 && mount == other.mount && device == other.device && inode == other.inode;
    }
};

pthread_mutex_t g_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
int g_users = 0; // number of objects that exist, all of one thread
Hierarchies g_known;
int g_error = 0; // of reading them
Place g_top;

Place look(int directory, const char* path)
{
    struct statx st = {};
    if (::syscall(SYS_statx, directory, path, AT_EMPTY_PATH, STATX_INO | STATX_MTIME | STATX_MNT_ID,
                  &st) != 0)
        return {};
    return {st.stx_mnt_id, std::uint64_t{st.stx_dev_major} << 32 | st.stx_dev_minor, st.stx_ino,
            st.stx_mtime.tv_sec * kNsPerSec + st.stx_mtime.tv_nsec};
}

// The modification time of /sys/fs/cgroup changes when a hierarchy of v1 is mounted. With v2 it
// changes with each group, so it is not compared.
bool is_valid()
{
    bool unifiedTop = false;
    for (const Hierarchy& one : g_known.all) {
        if (!look(one.root.get(), "").is_same_directory(look(AT_FDCWD, one.point.get())))
            return false;
        unifiedTop = unifiedTop || std::strcmp(one.point.get(), kCgroupTop) == 0;
    }
    const Place top = look(AT_FDCWD, kCgroupTop);
    return !g_known.all.empty() && top.is_same_directory(g_top) &&
           (unifiedTop || top.changed == g_top.changed);
}

} // namespace

KnownHierarchies::KnownHierarchies()
{
    ::pthread_mutex_lock(&g_lock);
    if (g_users++ != 0 || is_valid())
        return;
    g_known = Hierarchies();
    g_top = look(AT_FDCWD, kCgroupTop);
    g_error = hierarchies_read(g_known);
    if (g_error != 0)
        g_known = Hierarchies();
}

KnownHierarchies::~KnownHierarchies()
{
    g_users--;
    ::pthread_mutex_unlock(&g_lock);
}

int KnownHierarchies::error() const
{
    return g_error;
}

const Hierarchies& KnownHierarchies::get() const
{
    return g_known;
}

CgroupVersion cgroup_version()
{
    const znc::ErrnoSaver keep;
    const KnownHierarchies known;
    const bool isNone =
        known.error() != 0 || known.get().all.empty() || known.get().all[0].delegated;
    return isNone ? CgroupVersion::kNone : known.get().version;
}

CgroupVersion cgroup_version_delegated()
{
    const znc::ErrnoSaver keep;
    const KnownHierarchies known;
    return known.error() == 0 ? known.get().version : CgroupVersion::kNone;
}

bool cgroup_may_create(const char* path)
{
    const znc::ErrnoSaver keep;
    const KnownHierarchies known;
    return known.error() == 0 && group_may_create(known.get(), path);
}

int cgroup_without(const Resources& resources, const char** field)
{
    const Hierarchies none;
    GroupPath group;
    *field = nullptr;
    const int error = group.set("none");
    return error != 0 ? error : limits_apply(none, group, resources, field);
}

int cgroup_create(const char* path, const Resources& resources, const char** field)
{
    const KnownHierarchies known;
    *field = nullptr;
    return known.error() != 0 ? known.error() : cgroup_create(known.get(), path, resources, field);
}

int cgroup_complete(const char* path, int pid, const Resources& resources, const char** field)
{
    const KnownHierarchies known;
    *field = nullptr;
    return known.error() != 0 ? known.error()
                              : cgroup_complete(known.get(), path, pid, resources, field);
}

int cgroup_limit(const char* path, const Resources& resources, const char** field)
{
    const KnownHierarchies known;
    *field = nullptr;
    return known.error() != 0 ? known.error() : cgroup_limit(known.get(), path, resources, field);
}

int cgroup_directories(const char* path, List<GroupDirectory>& directories)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_directories(known.get(), path, directories);
}

int cgroup_entries(const char* path, List<Text>& entries)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_entries(known.get(), path, entries);
}

int cgroup_freeze(const char* path, bool frozen)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_freeze(known.get(), path, frozen);
}

int cgroup_frozen(const char* path, bool& frozen)
{
    if (cgroup_frozen_usual(path, frozen))
        return 0;
    Hierarchies hierarchies;
    const int error = hierarchies_read(hierarchies);
    return error != 0 ? error : cgroup_frozen(hierarchies, path, frozen);
}

int cgroup_use(const char* path, CgroupUse& use)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_use(known.get(), path, use);
}

int cgroup_processes(const char* path, List<int>& pids)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_processes(known.get(), path, pids);
}

int cgroup_remove(const char* path)
{
    const KnownHierarchies known;
    return known.error() != 0 ? known.error() : cgroup_remove(known.get(), path);
}

} // namespace zn
