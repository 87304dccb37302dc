#include "overlay_mount.hpp"

#include "base/failure.hpp"
#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "overlay_options.hpp"

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
namespace {

using znc::MallocPtr;
using znc::UniqueFd;

// Only containers use the content of a device, through mounts of their own. On the host, device
// nodes and set-id programs in it must have no effect.
constexpr unsigned kMountAttributes = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
constexpr unsigned long kMountFlags = MS_NOSUID | MS_NODEV;

UniqueFd open_directory(const char* path)
{
    return UniqueFd(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// The upper directory of a device, and the work directory that overlayfs needs, next to it.
class Upper {
  public:
    bool open(const char* path)
    {
        upper_ = open_directory(path);
        parent_.reset(upper_ ? ::openat(upper_.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1);
        if (!parent_)
            return false;
        made_ = ::mkdirat(parent_.get(), kWork, 0700) == 0;
        if (!made_ && errno != EEXIST)
            return false;
        work_.reset(::openat(parent_.get(), kWork, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return static_cast<bool>(work_);
    }
    // The root of an overlay has the mode and owner of its upper directory. They must be those of
    // the image's root directory; otherwise a user who may not rename /bin in the image could do so
    // in the container.
    [[nodiscard]] bool take_attributes(int lower) const
    {
        struct stat st;
        const UniqueFd dir(
            ::openat(upper_.get(), ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return dir && ::fstat(lower, &st) == 0 &&
               ::fchown(dir.get(), st.st_uid, st.st_gid) ==
                   0 && // before fchmod: chown clears set-id bits
               ::fchmod(dir.get(), st.st_mode & kModeBits) == 0;
    }
    // Removes what was created for a mount that failed.
    void undo() const
    {
        const znc::ErrnoSaver keep;
        if (!made_)
            return;
        if (work_)
            ::unlinkat(work_.get(), kWork, AT_REMOVEDIR);
        ::unlinkat(parent_.get(), kWork, AT_REMOVEDIR);
    }
    [[nodiscard]] int upper() const { return upper_.get(); }
    [[nodiscard]] int work() const { return work_.get(); }

  private:
    static constexpr mode_t kModeBits = 07777;
    static constexpr char kWork[] = "work"; // overlayfs creates a directory of the same name in it
    UniqueFd upper_;
    UniqueFd parent_;
    UniqueFd work_;
    bool made_ = false;
};

bool set_fd(int context, const char* key, int fd)
{
    return ::syscall(SYS_fsconfig, context, FSCONFIG_SET_FD, key, nullptr, fd) == 0;
}

bool is_duplicate(const char* const* dirs, std::uint32_t at)
{
    for (std::uint32_t i = 0; i < at; i++)
        if (std::strcmp(dirs[i], dirs[at]) == 0)
            return true;
    return false;
}

// Descriptors of the layers. The kernel refuses a directory that occurs twice; a repeated one is
// left out, since the first occurrence hides all of it.
class Stack : znc::NotCopied {
  public:
    bool open(const char* const* dirs, std::uint32_t count)
    {
        fds_ = znc::malloc_array<int>(count);
        for (std::uint32_t i = 0; fds_ && i < count; i++) {
            if (is_duplicate(dirs, i))
                continue;
            UniqueFd fd = open_directory(dirs[i]);
            if (!fd)
                return false;
            fds_[count_++] = fd.release();
        }
        return fds_ != nullptr;
    }
    [[nodiscard]] std::uint32_t count() const { return count_; }
    ~Stack()
    {
        while (count_ > 0)
            const UniqueFd closed(fds_[--count_]);
    }
    [[nodiscard]] const int* fds() const { return fds_.get(); }

  private:
    MallocPtr<int[]> fds_;
    std::uint32_t count_ = 0;
};

// Without an upper directory, overlayfs needs at least two layers; a single read-only layer is
// mounted as a read-only bind.
int mount_single(int target, int dir)
{
    const UniqueFd tree(static_cast<int>(
        ::syscall(SYS_open_tree, dir, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH)));
    mount_attr attr = {};
    attr.attr_set = MOUNT_ATTR_RDONLY | kMountAttributes;
    attr.propagation = MS_PRIVATE;
    if (!tree ||
        ::syscall(SYS_mount_setattr, tree.get(), "", AT_EMPTY_PATH, &attr, sizeof attr) != 0)
        return -1;
    return static_cast<int>(::syscall(SYS_move_mount, tree.get(), "", target, "",
                                      MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH));
}

} // namespace

bool overlay_supported()
{
    const znc::ErrnoSaver keep;
    const UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, "overlay", FSOPEN_CLOEXEC)));
    return static_cast<bool>(context);
}

int overlay_mount_by_fd(int target, const int* dirs, std::uint32_t count, int upper, int work)
{
    const UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, "overlay", FSOPEN_CLOEXEC)));
    if (!context)
        return -1;
    for (std::uint32_t i = 0; i < count; i++)
        if (!set_fd(context.get(), "lowerdir+", dirs[i]))
            return -1;
    if (upper >= 0 &&
        (!set_fd(context.get(), "upperdir", upper) || !set_fd(context.get(), "workdir", work)))
        return -1;
    if (::syscall(SYS_fsconfig, context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return -1;
    const UniqueFd mount(
        static_cast<int>(::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC,
                                   kMountAttributes | (upper >= 0 ? 0 : MOUNT_ATTR_RDONLY))));
    if (!mount)
        return -1;
    return static_cast<int>(::syscall(SYS_move_mount, mount.get(), "", target, "",
                                      MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH));
}

namespace {

struct FdPath {
    explicit FdPath(int fd) { std::snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
    char text[32];
};

// The path of a directory, to be shown in the mount table; false if it cannot be determined.
bool path_of(int fd, char (&path)[PATH_MAX])
{
    const ssize_t len = ::readlink(FdPath(fd).text, path, sizeof path - 1);
    if (len <= 0)
        return false;
    path[len] = '\0';
    struct stat named;
    struct stat open;
    return ::stat(path, &named) == 0 && ::fstat(fd, &open) == 0 && named.st_dev == open.st_dev &&
           named.st_ino == open.st_ino;
}

// Lists the lower directories by their paths or, if these are too long, by the short paths of their
// descriptors.
bool list_lower(const int* dirs, std::uint32_t count, bool named, OverlayOptions& options)
{
    for (std::uint32_t i = 0; i < count; i++) {
        char path[PATH_MAX];
        if (named && !path_of(dirs[i], path))
            return false;
        options.add(i == 0 ? "lowerdir=" : ":", named ? path : FdPath(dirs[i]).text);
    }
    return options.fits();
}

} // namespace

int overlay_mount_classic(int target, const int* dirs, std::uint32_t count, int upper, int work)
{
    for (const bool named : {true, false}) {
        OverlayOptions options;
        const bool listed = list_lower(dirs, count, named, options);
        if (upper >= 0) {
            options.add(",upperdir=", FdPath(upper).text);
            options.add(",workdir=", FdPath(work).text);
        }
        if (listed && options.fits())
            return ::mount("overlay", FdPath(target).text, "overlay",
                           kMountFlags | (upper >= 0 ? 0 : MS_RDONLY), options.text());
    }
    return znc::fail(ENAMETOOLONG);
}

static int mount_stack(int target, const char* const* dirs, std::uint32_t count, const Upper& upper)
{
    Stack stack;
    if (!stack.open(dirs, count))
        return -1;
    const int* fds = stack.fds();
    count = stack.count();
    if (upper.upper() >= 0 && !upper.take_attributes(fds[0]))
        return -1;
    if (count == 1 && upper.upper() < 0)
        return mount_single(target, fds[0]);
    if (overlay_mount_by_fd(target, fds, count, upper.upper(), upper.work()) == 0)
        return 0;
    // Kernels before 6.13 do not accept descriptors with O_PATH and fail with EBADF, those
    // before 6.5 accept none and fail with EOPNOTSUPP. An invalid stack fails with EINVAL; mount()
    // then fails again, or cannot be tried because its options would exceed one page.
    if (errno != EINVAL && errno != EOPNOTSUPP && errno != EBADF)
        return -1;
    if (overlay_mount_classic(target, fds, count, upper.upper(), upper.work()) == 0)
        return 0;
    if (errno == ENAMETOOLONG)
        errno = EINVAL;
    return -1;
}

int overlay_mount(int target, const char* const* dirs, std::uint32_t count, bool hasUpper)
{
    Upper upper;
    if (!hasUpper)
        return mount_stack(target, dirs, count, upper);
    if (upper.open(dirs[0]) && mount_stack(target, dirs + 1, count - 1, upper) == 0)
        return 0;
    upper.undo();
    return -1;
}

} // namespace zn
