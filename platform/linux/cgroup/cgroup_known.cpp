// cgroup_known.cpp - see cgroup_known.hpp.
#include "cgroup_known.hpp"

#include "system/clock.hpp"

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

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Hierarchies g_known;
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

// The directory above the hierarchies of v1 changes when one is added; that of v2 with each group.
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
    if (is_valid())
        return;
    g_known = Hierarchies();
    g_top = look(AT_FDCWD, kCgroupTop);
    error_ = hierarchies_read(g_known);
    if (error_ != 0)
        g_known = Hierarchies();
}

KnownHierarchies::~KnownHierarchies()
{
    ::pthread_mutex_unlock(&g_lock);
}

const Hierarchies& KnownHierarchies::get() const
{
    return g_known;
}

} // namespace zn
