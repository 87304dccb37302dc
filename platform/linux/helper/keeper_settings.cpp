// keeper_settings.cpp - what a container's configuration changes in its namespaces, before any
// program runs in them: namespaces to join, devices, kernel parameters,
// paths that are hidden or read-only. Paths are resolved like mount destinations: inside the root.

#include "helper.hpp"
#include "keeper_mask.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/prctl.h>
#include <linux/securebits.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::size_t kPathMax = 1024;

int error_of(long result)
{
    return result < 0 ? static_cast<int>(-result) : 0;
}

// Whether two descriptors are on the same mount.
int same_mount(int one, int other)
{
    struct statx a = {};
    struct statx b = {};
    int error = error_of(
        sys::call(__NR_statx, one, sys::arg(""), AT_EMPTY_PATH, STATX_MNT_ID, sys::arg(&a)));
    if (error == 0)
        error = error_of(
            sys::call(__NR_statx, other, sys::arg(""), AT_EMPTY_PATH, STATX_MNT_ID, sys::arg(&b)));
    return error != 0 ? error : a.stx_mnt_id == b.stx_mnt_id ? 0 : EXDEV;
}

// A directory in the container's /dev, created if missing; EXDEV if a symbolic link or mount leads
// out of the file system that this process mounted there.
sys::Fd device_directory(const char* path, std::size_t len)
{
    char text[kPathMax];
    memcpy(text, path, len);
    text[len] = '\0';
    sys::Fd directory(mount_point(text, true));
    if (!directory.valid())
        return directory;
    const sys::Fd dev(open_inside("/dev", O_DIRECTORY));
    const int error = dev.valid() ? same_mount(dev.get(), directory.get()) : dev.error();
    return error == 0 ? static_cast<sys::Fd&&>(directory) : sys::Fd(-error);
}

} // namespace

int namespace_join(int descriptor, std::uint64_t types)
{
    return error_of(sys::call(__NR_setns, descriptor, static_cast<long>(types)));
}

// The file system ids decide who owns what is created. Without the secure bit, changing them from
// root's would take the capabilities that creating devices and mount points needs.
int owner_set(std::uint32_t uid, std::uint32_t gid)
{
    constexpr long kNone = -1; // changes nothing; the calls return the old id
    int error = error_of(sys::call(__NR_prctl, PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP));
    if (error != 0)
        return error;
    sys::call(__NR_setfsgid, gid);
    sys::call(__NR_setfsuid, uid);
    if (sys::call(__NR_setfsgid, kNone) != static_cast<long>(gid) ||
        sys::call(__NR_setfsuid, kNone) != static_cast<long>(uid))
        return EPERM;
    // Changing ids may have reset the dumpable flag.
    return error_of(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
}

int device_make(const char* path, const wire::Node& node)
{
    constexpr char kDev[] = "/dev/";
    const std::size_t len = strlen(path);
    std::size_t cut = len;
    while (cut > 0 && path[cut - 1] != '/')
        cut--;
    if (len >= kPathMax || cut < sizeof kDev - 1 || cut == len ||
        memcmp(path, kDev, sizeof kDev - 1) != 0)
        return EINVAL;
    const sys::Fd directory = device_directory(path, cut);
    if (!directory.valid())
        return directory.error();
    return node_make(directory.get(), path + cut, node);
}

int node_create(int directory, const char* name, const wire::Node& node)
{
    const long number = (node.minor & 0xff) | (static_cast<long>(node.major & 0xfff) << 8) |
                        (static_cast<long>(node.minor & ~0xffU) << 12);
    const int error =
        error_of(sys::call(__NR_mknodat, directory, sys::arg(name), node.mode, number));
    return error != 0 ? error
                      : error_of(sys::call(__NR_fchownat, directory, sys::arg(name), node.uid,
                                           node.gid, AT_SYMLINK_NOFOLLOW));
}

int node_make(int directory, const char* name, const wire::Node& node)
{
    const long removed = sys::call(__NR_unlinkat, directory, sys::arg(name), 0);
    return removed < 0 && removed != -ENOENT ? error_of(removed)
                                             : node_create(directory, name, node);
}

// Parameters of an IPC namespace can be written by the root of its user namespace only, whatever
// capabilities the writer has. While this exists, this process has the owner of new files as its
// effective user, and keeps its capabilities.
class AsOwner {
  public:
    AsOwner() : owner_(sys::call(__NR_setfsuid, -1))
    {
        if (owner_ != 0)
            sys::call(__NR_setresuid, -1, owner_, -1);
    }
    ~AsOwner()
    {
        if (owner_ == 0)
            return;
        sys::call(__NR_setresuid, -1, 0, -1);
        sys::call(__NR_setfsuid, owner_);
        sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
    }
    AsOwner(const AsOwner&) = delete;
    AsOwner& operator=(const AsOwner&) = delete;

  private:
    long owner_;
};

int parameter_set(const char* path, const char* value)
{
    // A procfs of its own: that of the container may be mounted over, and is read-only there.
    const sys::Fd proc(filesystem_create("proc", MOUNT_ATTR_NOSUID, nullptr, 0));
    if (!proc.valid())
        return proc.error();
    const sys::Fd root(
        sys::call(__NR_openat, proc.get(), sys::arg("sys"), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.valid())
        return root.error();
    open_how how = {};
    how.flags = O_WRONLY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const AsOwner owner;
    const sys::Fd file(
        sys::call(__NR_openat2, root.get(), sys::arg(path), sys::arg(&how), sizeof how));
    if (!file.valid())
        return file.error();
    return error_of(
        sys::call(__NR_write, file.get(), sys::arg(value), static_cast<long>(strlen(value))));
}

int path_hide(const char* path)
{
    const sys::Fd target(open_inside(path, 0));
    if (!target.valid())
        return target.error() == ENOENT || target.error() == ENOTDIR ? 0 : target.error();
    const sys::Fd root(open_inside("/", O_DIRECTORY));
    if (!root.valid())
        return root.error();
    Covers covers(root.get());
    const int error = covers.cover(target.get());
    const int detached = covers.detach();
    return error != 0 ? error : detached;
}

int mount_read_only(const char* path)
{
    mount_attr attr = {};
    attr.attr_set = MOUNT_ATTR_RDONLY;
    const sys::Fd target(open_inside(path, 0));
    return target.valid() ? error_of(sys::call(__NR_mount_setattr, target.get(), sys::arg(""),
                                               AT_EMPTY_PATH, sys::arg(&attr), sizeof attr))
                          : target.error();
}

int path_read_only(const char* path)
{
    mount_attr attr = {};
    attr.attr_set = MOUNT_ATTR_RDONLY;
    if (text_equal(path, "/"))
        return error_of(sys::call(__NR_mount_setattr, AT_FDCWD, sys::arg("/"), 0, sys::arg(&attr),
                                  sizeof attr));
    const sys::Fd target(open_inside(path, 0));
    if (!target.valid())
        return target.error() == ENOENT || target.error() == ENOTDIR ? 0 : target.error();
    const sys::Fd copy(
        sys::call(__NR_open_tree, target.get(), sys::arg(""),
                  OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH | AT_RECURSIVE));
    if (!copy.valid())
        return copy.error();
    attr.propagation = MS_PRIVATE;
    const int error =
        error_of(sys::call(__NR_mount_setattr, copy.get(), sys::arg(""),
                           AT_EMPTY_PATH | AT_RECURSIVE, sys::arg(&attr), sizeof attr));
    return error != 0 ? error
                      : error_of(sys::call(__NR_move_mount, copy.get(), sys::arg(""), target.get(),
                                           sys::arg(""),
                                           MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH));
}

} // namespace zn
