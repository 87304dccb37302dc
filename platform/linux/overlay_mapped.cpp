// overlay_mapped.cpp - see overlay_mapped.hpp. Kernels before 6.15 accept only layers that are
// attached in the mount namespace of the caller. The id-mapped clones are therefore attached over
// the layers, by their real names, in a mount namespace that exists as long as one thread.
#include "overlay_mapped.hpp"

#include "overlay_options.hpp"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr unsigned long kMountFlags = MS_NOSUID | MS_NODEV;

UniqueFd open_tree(const char* path, unsigned flags)
{
    return UniqueFd(
        static_cast<int>(::syscall(SYS_open_tree, AT_FDCWD, path, OPEN_TREE_CLOEXEC | flags)));
}

// The directory next to the upper one that overlayfs works in.
bool work_path(const char* upper, char (&path)[PATH_MAX])
{
    const char* const slash = std::strrchr(upper, '/');
    const auto len = slash == nullptr ? -1
                                      : std::snprintf(path, sizeof path, "%.*s/work",
                                                      static_cast<int>(slash - upper), upper);
    return len > 0 && static_cast<std::size_t>(len) < sizeof path;
}

int give_owner(const char* upper, const UserNamespace& user)
{
    const UniqueFd dir(::open(upper, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return errno;
    const auto uid = user.host_uid(st.st_uid);
    const auto gid = user.host_gid(st.st_gid);
    if (!uid || !gid)
        return EOVERFLOW;
    return ::fchown(dir.get(), *uid, *gid) == 0 && ::fchmod(dir.get(), st.st_mode & 07777) == 0
               ? 0
               : errno;
}

int map_layer(const char* path, int userNamespace)
{
    const UniqueFd tree = open_tree(path, OPEN_TREE_CLONE);
    mount_attr attr = {};
    attr.attr_set = MOUNT_ATTR_IDMAP;
    attr.userns_fd = static_cast<std::uint64_t>(userNamespace);
    const bool done =
        tree &&
        ::syscall(SYS_mount_setattr, tree.get(), "", AT_EMPTY_PATH, &attr, sizeof attr) == 0 &&
        ::syscall(SYS_move_mount, tree.get(), "", AT_FDCWD, path, MOVE_MOUNT_F_EMPTY_PATH) == 0;
    return done ? 0 : errno;
}

bool set_path(int context, const char* key, const char* path)
{
    return ::syscall(SYS_fsconfig, context, FSCONFIG_SET_STRING, key, path, 0) == 0;
}

// One option for each layer: since Linux 6.5.
UniqueFd mount_by_option(const OverlayLayers& layers, const char* work)
{
    const UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, "overlay", FSOPEN_CLOEXEC)));
    if (!context)
        return {};
    for (const auto& lower : layers.lower)
        if (!set_path(context.get(), "lowerdir+", lower.get()))
            return {};
    if (!set_path(context.get(), "upperdir", layers.upper.get()) ||
        !set_path(context.get(), "workdir", work) ||
        ::syscall(SYS_fsconfig, context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return {};
    return UniqueFd(static_cast<int>(::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC,
                                               MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV)));
}

// All layers in one option: for older kernels.
UniqueFd mount_by_list(const OverlayLayers& layers, const char* work)
{
    OverlayOptions options;
    const char* key = "lowerdir=";
    for (const auto& lower : layers.lower) {
        options.add(key, lower.get());
        key = ":";
    }
    options.add(",upperdir=", layers.upper.get());
    options.add(",workdir=", work);
    if (!options.fits()) {
        errno = E2BIG;
        return {};
    }
    // Any directory will do in this mount namespace, except one that contains layers.
    if (::mount("overlay", "/proc", "overlay", kMountFlags, options.text()) != 0)
        return {};
    return open_tree("/proc", OPEN_TREE_CLONE);
}

struct Work {
    const OverlayLayers& layers;
    int userNamespace;
    UniqueFd mount;
    int error = 0;
};

int mount_in_namespace(Work& work)
{
    char work_dir[PATH_MAX];
    if (!work_path(work.layers.upper.get(), work_dir))
        return ENAMETOOLONG;
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return errno;
    for (const auto& lower : work.layers.lower)
        if (const int error = map_layer(lower.get(), work.userNamespace); error != 0)
            return error;
    work.mount = mount_by_option(work.layers, work_dir);
    if (!work.mount && (errno == EINVAL || errno == EOPNOTSUPP))
        work.mount = mount_by_list(work.layers, work_dir);
    return work.mount ? 0 : errno;
}

void* run(void* argument)
{
    auto* work = static_cast<Work*>(argument);
    work->error = mount_in_namespace(*work);
    return nullptr;
}

} // namespace

int overlay_mount_mapped(int target, const OverlayLayers& layers, const UserNamespace& user)
{
    const UniqueFd owners = user.open_namespace();
    if (!owners)
        return errno;
    if (const int error = give_owner(layers.upper.get(), user); error != 0)
        return error;
    Work work = {layers, owners.get(), {}, 0};
    pthread_t thread;
    if (const int error = ::pthread_create(&thread, nullptr, run, &work); error != 0)
        return error;
    ::pthread_join(thread, nullptr);
    if (work.error != 0)
        return work.error;
    return ::syscall(SYS_move_mount, work.mount.get(), "", target, "",
                     MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0
               ? 0
               : errno;
}

} // namespace zn
