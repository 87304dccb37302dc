// keeper_mask.cpp - masks parts of procfs and sysfs, which are not namespaced: some paths are
// covered, some are made read-only. A path that the kernel does not have is not an error.

#include "keeper_mask.hpp"

#include "helper.hpp"
#include "settings/default_paths.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::uint64_t kReadOnlyAttributes =
    MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;

// Opens a path of the file system on `directory` without following symbolic links or crossing
// mounts.
sys::Fd open_beneath(int directory, const char* path)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC | O_NOFOLLOW;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    return sys::Fd(sys::call(__NR_openat2, directory, sys::arg(path), sys::arg(&how), sizeof how));
}

int attach(int mount, int target)
{
    return static_cast<int>(-sys::call(__NR_move_mount, mount, sys::arg(""), target, sys::arg(""),
                                       MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH));
}

// A detached, read-only clone of the mount at `source`.
sys::Fd read_only_clone(int source)
{
    sys::Fd copy(sys::call(__NR_open_tree, source, sys::arg(""),
                           OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH));
    if (!copy.valid())
        return copy;
    mount_attr attr = {};
    attr.attr_set = kReadOnlyAttributes;
    attr.propagation = MS_PRIVATE;
    const long set = sys::call(__NR_mount_setattr, copy.get(), sys::arg(""), AT_EMPTY_PATH,
                               sys::arg(&attr), sizeof attr);
    return set < 0 ? sys::Fd(set) : static_cast<sys::Fd&&>(copy);
}

int make_read_only(int directory, const char* path)
{
    const sys::Fd target = open_beneath(directory, path);
    if (!target.valid())
        return target.error() == ENOENT ? 0 : target.error();
    const sys::Fd copy = read_only_clone(target.get());
    return copy.valid() ? attach(copy.get(), target.get()) : copy.error();
}

// Hides the thermal counters of every processor, which reveal the load that other processes put on
// it.
int hide_thermal(Covers& covers, int directory)
{
    constexpr char kStart[] = "devices/system/cpu/cpu";
    constexpr char kEnd[] = "/thermal_throttle";
    for (unsigned cpu = 0; cpu < 10000; cpu++) {
        char path[sizeof kStart + sizeof kEnd + 4];
        memcpy(path, kStart, sizeof kStart);
        std::size_t at = sizeof kStart - 1;
        for (unsigned unit = 1000; unit > 0; unit /= 10)
            if (cpu >= unit || unit == 1)
                path[at++] = static_cast<char>('0' + cpu / unit % 10);
        path[at] = '\0';
        const sys::Fd processor = open_beneath(directory, path);
        if (!processor.valid())
            return processor.error() == ENOENT ? 0 : processor.error();
        memcpy(path + at, kEnd, sizeof kEnd);
        const int error = covers.hide(directory, path);
        if (error != 0)
            return error;
    }
    return 0;
}

} // namespace

int Covers::hide(int directory, const char* path)
{
    const sys::Fd target = open_beneath(directory, path);
    if (!target.valid())
        return target.error() == ENOENT ? 0 : target.error();
    return cover(target.get());
}

int Covers::cover(int target)
{
    struct statx st = {};
    const long looked =
        sys::call(__NR_statx, target, sys::arg(""), AT_EMPTY_PATH, STATX_TYPE, sys::arg(&st));
    if (looked < 0)
        return static_cast<int>(-looked);
    const int error = make();
    if (error != 0)
        return error;
    const bool isDirectory = (st.stx_mode & kTypeMask) == kDirectory;
    const sys::Fd copy = read_only_clone(isDirectory ? empty_.get() : file_.get());
    return copy.valid() ? attach(copy.get(), target) : copy.error();
}

int Covers::detach()
{
    return attached_ ? mount_detach_whole(root_.get()) : 0;
}

int Covers::make()
{
    if (attached_)
        return 0;
    // The size is rounded up to one page. The page is never used, since the file stays empty.
    root_ =
        sys::Fd(filesystem_create("tmpfs", kReadOnlyAttributes & ~std::uint64_t{MOUNT_ATTR_RDONLY},
                                  "mode=755\0size=4k\0nr_inodes=3", 3));
    if (!root_.valid())
        return root_.error();
    const long made = sys::call(__NR_mkdirat, root_.get(), sys::arg("empty"), 0555);
    const sys::Fd created(sys::call(__NR_openat, root_.get(), sys::arg("file"),
                                    O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444));
    if (made < 0 || !created.valid())
        return made < 0 ? static_cast<int>(-made) : created.error();
    const int error = attach(root_.get(), place_);
    if (error != 0)
        return error;
    attached_ = true;
    empty_ = open_beneath(root_.get(), "empty");
    file_ = open_beneath(root_.get(), "file");
    return !empty_.valid() ? empty_.error() : file_.error();
}

int mask_proc(int directory, Covers& covers)
{
    int error = 0;
    for (const auto& path : kProcReadOnly)
        if (error == 0)
            error = make_read_only(directory, path);
    for (const auto& path : kProcMasked)
        if (error == 0)
            error = covers.hide(directory, path);
    return error;
}

int mask_sys(int directory, Covers& covers)
{
    int error = 0;
    for (const auto& path : kSysMasked)
        if (error == 0)
            error = covers.hide(directory, path);
    return error != 0 ? error : hide_thermal(covers, directory);
}

} // namespace zn
