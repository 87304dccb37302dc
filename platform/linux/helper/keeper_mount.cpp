// keeper_mount.cpp - mounts inside the root, by descriptor: a path in the container's tree is
// resolved once, by the kernel, confined to the root and without magic links, and the mount is
// attached to the result. Symbolic links in the tree can lead anywhere inside the root and nowhere
// else.

#include "helper.hpp"
#include "keeper_mask.hpp"
#include "sys.hpp"
#include "system/open_repeated.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::size_t kPathMax = 1024;
constexpr unsigned kIdentityMask = STATX_INO | STATX_MNT_ID;
constexpr long kUmountDetach = 2;
constexpr long kUmountNoFollow = 8;

// The start and end of the last component, without trailing "/".
struct Tail {
    std::size_t start;
    std::size_t end;
};
Tail last_component(const char* path)
{
    std::size_t end = strlen(path);
    while (end > 0 && path[end - 1] == '/')
        end--;
    std::size_t start = end;
    while (start > 0 && path[start - 1] != '/')
        start--;
    return {start, end};
}

// A NUL-terminated part of a path, shorter than kPathMax.
struct Text {
    Text(const char* from, std::size_t len)
    {
        memcpy(name, from, len);
        name[len] = '\0';
    }
    char name[kPathMax];
};

Text parent_of(const char* path, Tail tail)
{
    return tail.start > 0 ? Text(path, tail.start) : Text("/", 1);
}

// Gets mount id, inode and attributes of `name` in the directory `at`.
int look(int at, const char* name, struct statx* st)
{
    return static_cast<int>(-sys::call(__NR_statx, at, sys::arg(name),
                                       AT_SYMLINK_NOFOLLOW | (name[0] == '\0' ? AT_EMPTY_PATH : 0),
                                       kIdentityMask, sys::arg(st)));
}

int detach_at(int directory, const char* name)
{
    long undone = sys::call(__NR_fchdir, directory);
    if (undone == 0)
        undone = sys::call(__NR_umount2, sys::arg(name), kUmountDetach | kUmountNoFollow);
    sys::call(__NR_chdir, sys::arg("/"));
    return static_cast<int>(-undone);
}

bool usable(const char* destination)
{
    const std::size_t len = strlen(destination);
    const Tail tail = last_component(destination);
    return len < kPathMax && tail.end > tail.start; // neither empty nor "/"
}

// Fails with EINVAL if `point` is the root itself, also if ".." or symbolic links led there: a
// mount on it would replace the container's tree.
int refuse_root(int point)
{
    struct statx here = {};
    struct statx root = {};
    int error = look(point, "", &here);
    if (error == 0)
        error = look(AT_FDCWD, "/", &root);
    if (error != 0)
        return error;
    return here.stx_mnt_id == root.stx_mnt_id && here.stx_ino == root.stx_ino ? EINVAL : 0;
}

} // namespace

long open_inside(const char* path, std::uint64_t flags)
{
    return open_inside_at(AT_FDCWD, path, flags);
}

long open_inside_at(int root, const char* path, std::uint64_t flags)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC | flags;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return open_repeated(
        [&] { return sys::call(__NR_openat2, root, sys::arg(path), sys::arg(&how), sizeof how); });
}

int mount_attach(int mount, const char* destination, bool isDirectory, std::uint64_t* mountId)
{
    if (mount < 0 || !usable(destination))
        return EINVAL;
    const sys::Fd point(mount_point(destination, isDirectory));
    if (!point.valid())
        return point.error();
    const int refused = refuse_root(point.get());
    if (refused != 0)
        return refused;
    const long moved = sys::call(__NR_move_mount, mount, sys::arg(""), point.get(), sys::arg(""),
                                 MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH);
    if (moved < 0)
        return static_cast<int>(-moved);
    struct statx st = {};
    const int error = look(mount, "", &st);
    *mountId = st.stx_mnt_id;
    return error;
}

long filesystem_create(const char* type, std::uint64_t attributes, const char* options,
                       unsigned optionCount)
{
    const sys::Fd context(sys::call(__NR_fsopen, sys::arg(type), FSOPEN_CLOEXEC));
    if (!context.valid())
        return -context.error();
    for (; optionCount > 0; optionCount--) {
        char key[kPathMax];
        std::size_t len = 0;
        while (options[len] != '\0' && options[len] != '=' && len < sizeof key - 1) {
            key[len] = options[len];
            len++;
        }
        key[len] = '\0';
        const bool hasValue = options[len] == '=';
        const long set = sys::call(__NR_fsconfig, context.get(),
                                   hasValue ? FSCONFIG_SET_STRING : FSCONFIG_SET_FLAG,
                                   sys::arg(key), hasValue ? sys::arg(options + len + 1) : 0);
        if (set < 0)
            return set;
        options += strlen(options) + 1;
    }
    const long created = sys::call(__NR_fsconfig, context.get(), FSCONFIG_CMD_CREATE, 0, 0, 0);
    if (created < 0)
        return created;
    return sys::call(__NR_fsmount, context.get(), FSMOUNT_CLOEXEC, static_cast<long>(attributes));
}

int mount_filesystem(const char* destination, const char* type, std::uint64_t attributes,
                     const char* options, unsigned optionCount, std::uint64_t* mountId)
{
    const bool isProc = text_equal(type, "proc");
    const bool isSys = text_equal(type, "sysfs");
    if (isSys)
        attributes |= MOUNT_ATTR_RDONLY;
    const sys::Fd mount(filesystem_create(type, attributes, options, optionCount));
    if (!mount.valid())
        return mount.error();
    int error = mount_attach(mount.get(), destination, true, mountId);
    if (error != 0 || !(isProc || isSys))
        return error;
    Covers covers(mount.get());
    error = isProc ? mask_proc(mount.get(), covers) : mask_sys(mount.get(), covers);
    const int uncovered = covers.detach();
    if (error == 0)
        error = uncovered;
    if (error != 0)
        mount_detach_whole(mount.get());
    return error;
}

int mount_detach(const char* destination, std::uint64_t mountId)
{
    if (!usable(destination))
        return EINVAL;
    const Tail tail = last_component(destination);
    const Text directory = parent_of(destination, tail);
    const Text name(destination + tail.start, tail.end - tail.start);
    const sys::Fd parent(open_inside(directory.name, O_DIRECTORY));
    struct statx st = {};
    // The mount may not be reachable by this name any more: the container may have renamed a
    // directory on the path, or the name may have been a symbolic link. Not an error: the mount
    // goes with the namespace.
    if (!parent.valid() || look(parent.get(), name.name, &st) != 0 || st.stx_mnt_id != mountId ||
        (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0)
        return 0;
    return detach_at(parent.get(), name.name);
}

int mount_detach_whole(int mount)
{
    return detach_at(mount, ".");
}

} // namespace zn
