#include "overlay_mount.hpp"

#include "zarnel/owned.hpp"

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

UniqueFd open_directory(const char* path)
{
    return UniqueFd(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// The kernel wants an empty directory of its own on the upper one's filesystem.
UniqueFd open_work(const char* upper)
{
    char path[4096];
    const int len = std::snprintf(path, sizeof path, "%s/../work", upper);
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof path) {
        errno = ENAMETOOLONG;
        return UniqueFd();
    }
    if (::mkdir(path, 0700) != 0 && errno != EEXIST)
        return UniqueFd();
    return open_directory(path);
}

bool set_fd(int context, const char* key, int fd)
{
    return ::syscall(SYS_fsconfig, context, FSCONFIG_SET_FD, key, nullptr, fd) == 0;
}

// Descriptors of a stack, closed together.
class Stack {
  public:
    bool open(const char* const* dirs, std::uint32_t count)
    {
        fds_ = znc::malloc_array<int>(count);
        while (fds_ && count_ < count) {
            UniqueFd fd = open_directory(dirs[count_]);
            if (!fd)
                return false;
            fds_[count_++] = fd.release();
        }
        return fds_ != nullptr;
    }
    Stack() = default;
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;
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

// The kernel stacks no fewer than two directories; one alone, only to be read, is a read-only bind.
int mount_single(int target, int dir)
{
    const UniqueFd tree(static_cast<int>(
        ::syscall(SYS_open_tree, dir, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH)));
    mount_attr attr = {};
    attr.attr_set = MOUNT_ATTR_RDONLY;
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
    const UniqueFd mount(static_cast<int>(::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC,
                                                    upper >= 0 ? 0 : MOUNT_ATTR_RDONLY)));
    if (!mount)
        return -1;
    return static_cast<int>(::syscall(SYS_move_mount, mount.get(), "", target, "",
                                      MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH));
}

int overlay_mount_classic(int target, const int* dirs, std::uint32_t count, int upper, int work)
{
    // Descriptor names keep the options short and free of the colons that separate them.
    char options[4096] = "lowerdir=";
    std::size_t len = std::strlen(options);
    for (std::uint32_t i = 0; i < count && len < sizeof options; i++)
        len += static_cast<std::size_t>(std::snprintf(
            options + len, sizeof options - len, "%s/proc/self/fd/%d", i > 0 ? ":" : "", dirs[i]));
    if (upper >= 0 && len < sizeof options)
        len += static_cast<std::size_t>(
            std::snprintf(options + len, sizeof options - len,
                          ",upperdir=/proc/self/fd/%d,workdir=/proc/self/fd/%d", upper, work));
    if (len >= sizeof options) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char where[64];
    std::snprintf(where, sizeof where, "/proc/self/fd/%d", target);
    return ::mount("overlay", where, "overlay", upper >= 0 ? 0 : MS_RDONLY, options);
}

int overlay_mount(int target, const char* const* dirs, std::uint32_t count, bool hasUpper)
{
    UniqueFd upper;
    UniqueFd work;
    if (hasUpper) {
        upper = open_directory(dirs[0]);
        work = upper ? open_work(dirs[0]) : UniqueFd();
        if (!work)
            return -1;
        dirs++;
        count--;
    }
    Stack stack;
    if (!stack.open(dirs, count))
        return -1;
    if (count == 1 && !hasUpper)
        return mount_single(target, stack.fds()[0]);
    if (overlay_mount_by_fd(target, stack.fds(), count, upper.get(), work.get()) == 0)
        return 0;
    // Kernels that take no descriptors say EINVAL; so may a stack that none would take, which the
    // classic call then refuses again.
    return errno == EINVAL
               ? overlay_mount_classic(target, stack.fds(), count, upper.get(), work.get())
               : -1;
}

} // namespace zn
