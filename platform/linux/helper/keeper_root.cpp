// keeper_root.cpp - sets up a namespace's root: the tree as "/", with a procfs of its own, a small
// /dev and a read-only /sys, where the tree has these directories.

#include "helper.hpp"
#include "keeper_mask.hpp"
#include "sys.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/sched.h>

namespace zn {
namespace {

// The directories of the bare tree that keepers start in. The covers of hidden paths are attached
// to the first; the others are where a spare keeper mounts what a container has at "/proc" and so
// on.
constexpr char kCovers[] = "covers";
constexpr char kProvided[][5] = {"proc", "dev", "sys"};

constexpr std::uint64_t kRestricted = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;

// pivot_root(".", ".") stacks the old root on the new one at the same place, where it stays until
// it is detached. The new tree is first mounted over "/", so that no directory of the host is
// needed.
int pivot(int tree)
{
    long result = sys::call(__NR_mount, 0, sys::arg("/"), 0, MS_REC | MS_PRIVATE, 0);
    if (result == 0)
        result = sys::call(__NR_move_mount, tree, sys::arg(""), AT_FDCWD, sys::arg("/"),
                           MOVE_MOUNT_F_EMPTY_PATH);
    if (result == 0)
        result = sys::call(__NR_fchdir, tree);
    if (result == 0)
        result = sys::call(__NR_pivot_root, sys::arg("."), sys::arg("."));
    return static_cast<int>(-result);
}

// Detaches the previous tree, with the masks' tmpfs attached to it.
int detach_host()
{
    const long detached = sys::call(__NR_umount2, sys::arg("."), 2 /* MNT_DETACH */);
    return static_cast<int>(-(detached == 0 ? sys::call(__NR_chdir, sys::arg("/")) : detached));
}

// Opens a directory directly below the root. Returns 0 without a descriptor if there is none; a
// symbolic link or a file of that name does not count.
int real_directory(const char* name, sys::Fd& found)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    found = sys::Fd(sys::call(__NR_openat2, AT_FDCWD, sys::arg(name), sys::arg(&how), sizeof how));
    const int error = found.error();
    return error == ENOENT || error == ENOTDIR || error == ELOOP ? 0 : error;
}

int attach(int mount, int directory, const char* name)
{
    return static_cast<int>(
        -sys::call(__NR_move_mount, mount, sys::arg(""), directory, sys::arg(name),
                   MOVE_MOUNT_F_EMPTY_PATH | (name[0] == '\0' ? MOVE_MOUNT_T_EMPTY_PATH : 0)));
}

int provide(const char* type, std::uint64_t attributes, const char* options, unsigned optionCount,
            int directory, const char* name)
{
    const sys::Fd mount(filesystem_create(type, attributes, options, optionCount));
    return mount.valid() ? attach(mount.get(), directory, name) : mount.error();
}

int provide_proc(Covers& covers, bool masked)
{
    sys::Fd directory;
    const int looked = real_directory("proc", directory);
    if (!directory.valid())
        return looked;
    const sys::Fd mount(filesystem_create("proc", kRestricted, nullptr, 0));
    if (!mount.valid())
        return mount.error();
    const int error = attach(mount.get(), directory.get(), "");
    return error != 0 || !masked ? error : mask_proc(mount.get(), covers);
}

int provide_sys(Covers& covers, bool masked)
{
    sys::Fd directory;
    const int looked = real_directory("sys", directory);
    if (!directory.valid())
        return looked;
    const sys::Fd mount(filesystem_create("sysfs", kRestricted | MOUNT_ATTR_RDONLY, nullptr, 0));
    if (!mount.valid())
        return mount.error();
    const int error = attach(mount.get(), directory.get(), "");
    return error != 0 || !masked ? error : mask_sys(mount.get(), covers);
}

int fill_dev(int dev)
{
    static constexpr struct {
        char name[8];
        unsigned short major;
        unsigned short minor;
    } kNodes[] = {{"null", 1, 3},   {"zero", 1, 5},    {"full", 1, 7},
                  {"random", 1, 8}, {"urandom", 1, 9}, {"tty", 5, 0}};
    static constexpr struct {
        char name[8];
        char target[16];
    } kLinks[] = {{"fd", "/proc/self/fd"},
                  {"stdin", "/proc/self/fd/0"},
                  {"stdout", "/proc/self/fd/1"},
                  {"stderr", "/proc/self/fd/2"},
                  {"ptmx", "pts/ptmx"}};
    static constexpr char kDirectories[][8] = {"pts", "shm", "mqueue"};
    long result = 0;
    for (const auto& node : kNodes)
        if (result == 0)
            result = sys::call(__NR_mknodat, dev, sys::arg(node.name), kCharDevice | 0666,
                               (node.major << 8) | node.minor);
    for (const auto& link : kLinks)
        if (result == 0)
            result = sys::call(__NR_symlinkat, sys::arg(link.target), dev, sys::arg(link.name));
    for (const auto& directory : kDirectories)
        if (result == 0)
            result = sys::call(__NR_mkdirat, dev, sys::arg(directory), 0755);
    return static_cast<int>(-result);
}

// "gid=" and a number.
void group_option(std::uint32_t group, char (&text)[16])
{
    char digits[12];
    std::size_t count = 0;
    do
        digits[count++] = static_cast<char>('0' + group % 10);
    while ((group /= 10) != 0);
    memcpy(text, "gid=", 4);
    for (std::size_t i = 0; i < count; i++)
        text[4 + i] = digits[count - 1 - i];
    text[4 + count] = '\0';
}

int provide_dev(std::uint32_t ttyGroup)
{
    sys::Fd directory;
    int error = real_directory("dev", directory);
    if (!directory.valid())
        return error;
    const sys::Fd dev(filesystem_create("tmpfs", MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC,
                                        "mode=755\0size=65536k", 2));
    if (!dev.valid())
        return dev.error();
    char terminals[] = "ptmxmode=0666\0mode=0620\0gid=0123456789";
    char group[16];
    group_option(ttyGroup, group);
    memcpy(terminals + sizeof "ptmxmode=0666\0mode=0620", group, strlen(group) + 1);
    error = fill_dev(dev.get());
    if (error == 0)
        error = attach(dev.get(), directory.get(), "");
    if (error == 0)
        error = provide("devpts", MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC, terminals, 3, dev.get(),
                        "pts");
    if (error == 0)
        error = provide("tmpfs", kRestricted, "mode=1777\0size=65536k", 2, dev.get(), "shm");
    if (error == 0)
        error = provide("mqueue", kRestricted, nullptr, 0, dev.get(), "mqueue");
    return error;
}

// Mounts procfs, /dev and sysfs on the directories of these names below the working directory.
int provide_all(int coversPlace, bool masked, std::uint32_t ttyGroup)
{
    Covers covers(coversPlace);
    int error = provide_proc(covers, masked);
    if (error == 0)
        error = provide_dev(ttyGroup);
    return error != 0 ? error : provide_sys(covers, masked);
}

sys::Fd open_directory(const char* path)
{
    return sys::Fd(
        sys::call(__NR_openat, AT_FDCWD, sys::arg(path), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// What a spare keeper has mounted ahead.
class Prepared {
  public:
    // Finds the mounts, as long as "/" is the bare tree.
    int find()
    {
        for (unsigned i = 0; i < kCount; i++) {
            mounts_[i] = open_directory(kProvided[i]);
            if (!mounts_[i].valid())
                return mounts_[i].error();
        }
        return 0;
    }
    // Moves them to the directories of these names below the working directory. What the tree has
    // no directory for stays in the bare tree.
    int move() const
    {
        for (unsigned i = 0; i < kCount; i++) {
            sys::Fd directory;
            int error = real_directory(kProvided[i], directory);
            if (directory.valid())
                error = attach(mounts_[i].get(), directory.get(), "");
            if (error != 0)
                return error;
        }
        return 0;
    }

  private:
    static constexpr unsigned kCount = sizeof kProvided / sizeof kProvided[0];
    sys::Fd mounts_[kCount];
};

} // namespace

// pivot_root must replace the whole tree, not only that in the chroot.
int chroot_leave()
{
    const sys::Fd self(sys::call(__NR_pidfd_open, sys::call(__NR_getpid), 0));
    if (!self.valid())
        return self.error();
    return static_cast<int>(-sys::call(__NR_setns, self.get(), CLONE_NEWNS));
}

int root_leave()
{
    const sys::Fd bare(
        filesystem_create("tmpfs", kRestricted, "mode=755\0size=4k\0nr_inodes=6", 3));
    if (!bare.valid())
        return bare.error();
    long made = sys::call(__NR_mkdirat, bare.get(), sys::arg(kCovers), 0555);
    for (const char* name : kProvided)
        if (made >= 0)
            made = sys::call(__NR_mkdirat, bare.get(), sys::arg(name), 0555);
    const int error = made < 0 ? static_cast<int>(-made) : pivot(bare.get());
    return error != 0 ? error : detach_host();
}

int root_pivot(int tree)
{
    int error = tree < 0 ? EBADF : chroot_leave();
    if (error == 0)
        error = pivot(tree);
    return error != 0 ? error : detach_host();
}

int root_place(int tree, const char* place, sys::Fd& host)
{
    int error = tree < 0 ? EBADF : chroot_leave();
    if (error != 0)
        return error;
    long result = sys::call(__NR_mount, 0, sys::arg("/"), 0, MS_REC | MS_PRIVATE, 0);
    if (result < 0)
        return static_cast<int>(-result);
    host =
        sys::Fd(sys::call(__NR_openat, AT_FDCWD, sys::arg("/"), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const sys::Fd point(
        sys::call(__NR_openat, AT_FDCWD, sys::arg(place), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!host.valid() || !point.valid())
        return host.valid() ? point.error() : host.error();
    result = sys::call(__NR_move_mount, tree, sys::arg(""), point.get(), sys::arg(""),
                       MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH);
    if (result == 0)
        result = sys::call(__NR_fchdir, tree);
    if (result == 0)
        result = sys::call(__NR_chroot, sys::arg("."));
    return static_cast<int>(-result);
}

int root_switch(sys::Fd& host)
{
    const sys::Fd tree(
        sys::call(__NR_openat, AT_FDCWD, sys::arg("/"), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!tree.valid() || !host.valid())
        return tree.valid() ? host.error() : tree.error();
    // pivot_root needs this process to have the root of the mount namespace.
    long result = sys::call(__NR_fchdir, host.get());
    if (result == 0)
        result = sys::call(__NR_chroot, sys::arg("."));
    if (result == 0)
        result = sys::call(__NR_fchdir, tree.get());
    if (result == 0)
        result = sys::call(__NR_pivot_root, sys::arg("."), sys::arg("."));
    host.reset();
    return result < 0 ? static_cast<int>(-result) : detach_host();
}

int root_prepare()
{
    const sys::Fd place = open_directory(kCovers);
    if (!place.valid())
        return place.error();
    return provide_all(place.get(), true, wire::kSpareTerminalGroup);
}

int root_enter(int tree, const char* hostName, bool masked, std::uint32_t ttyGroup, bool isSpare)
{
    if (tree < 0)
        return EBADF;
    const bool prepared = isSpare && masked && ttyGroup == wire::kSpareTerminalGroup;
    // A directory of the previous tree as the place of the masks' tmpfs, so that detaching that
    // tree also unmounts the tmpfs.
    const sys::Fd place = open_directory("/proc");
    if (!place.valid())
        return place.error();
    Prepared ahead;
    // A spare keeper has no other root than that of its mount namespace: its starter joined one.
    int error = prepared ? ahead.find() : chroot_leave();
    if (error == 0)
        error = pivot(tree);
    if (error != 0)
        return error;
    std::size_t len = strlen(hostName);
    if (len > 64)
        len = 64;
    if (len != 0)
        sys::call(__NR_sethostname, sys::arg(hostName), static_cast<long>(len));
    error = prepared ? ahead.move() : provide_all(place.get(), masked, ttyGroup);
    const int detached = detach_host();
    return error != 0 ? error : detached;
}

} // namespace zn
