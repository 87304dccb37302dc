#include "launch.hpp"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "system/pidfd.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef MFD_EXEC
#define MFD_EXEC 0x0010U // since Linux 6.3
#endif

extern "C" const char zn_helper_image[];
extern "C" const char zn_helper_image_end[];

// glibc's internal name of clone(). ThreadSanitizer intercepts clone() and treats it as fork(),
// after which it allows no new threads.
extern "C" int __clone(int (*)(void*), void*, int, void*, ...);

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kFdAbove = 16; // above all descriptor numbers that a helper uses by itself
constexpr std::size_t kFdsMax = kLaunchFdsMax;
constexpr std::size_t kStackSize = 64 * 1024;

struct Child {
    const Launch* launch;
    int error;
};

// The child runs in the caller's memory while the caller is suspended, so its code may only make
// plain system calls and must not be instrumented.
#define ZN_PLAIN __attribute__((no_sanitize("address", "thread", "undefined")))

// Duplicates `fd` to a number above those that the helper uses, so that it is not overwritten; -1
// with errno set.
ZN_PLAIN long copy_high(int fd, int closeFrom)
{
    const long high =
        ::syscall(SYS_fcntl, fd, F_DUPFD, closeFrom < kFdAbove ? kFdAbove : closeFrom + 1);
    if (high < 0 && errno == EINVAL) // fcntl's error if RLIMIT_NOFILE is lower
        errno = EMFILE;
    return high;
}

ZN_PLAIN bool is_target(const Launch& launch, int fd)
{
    const LaunchFd* fds = launch.fds.data();
    std::size_t i = 0;
    while (i < launch.fds.size() && fds[i].target != fd)
        i++;
    return i < launch.fds.size();
}

// Moves every descriptor to its target number and the helper's file to the number after them;
// closes all others, also the caller's whose numbers are between the targets.
ZN_PLAIN bool place_descriptors(const Launch& launch)
{
    const LaunchFd* fds = launch.fds.data();
    const std::size_t count = launch.fds.size();
    long high[kFdsMax];
    const long file = copy_high(launch.file, launch.closeFrom);
    bool good = file >= 0;
    for (std::size_t i = 0; good && i < count; i++)
        good = (high[i] = copy_high(fds[i].source, launch.closeFrom)) >= 0;
    for (std::size_t i = 0; good && i < count; i++)
        good = ::syscall(SYS_dup3, high[i], fds[i].target, 0) >= 0;
    for (int fd = 0; good && fd < launch.closeFrom; fd++)
        if (!is_target(launch, fd))
            ::syscall(SYS_close, fd);
    return good && ::syscall(SYS_dup3, file, launch.closeFrom, O_CLOEXEC) >= 0 &&
           ::syscall(SYS_close_range, launch.closeFrom + 1, ~0U, 0) == 0;
}

ZN_PLAIN bool copy_mounts(int mounts)
{
    return mounts < 0 || (::syscall(SYS_setns, mounts, CLONE_NEWNS) == 0 &&
                          ::syscall(SYS_unshare, CLONE_NEWNS) == 0);
}

ZN_PLAIN bool join(const LaunchNamespace* all, std::size_t count)
{
    for (std::size_t i = 0; i < count; i++)
        if (::syscall(SYS_setns, all[i].descriptor, all[i].type) != 0)
            return false;
    return true;
}

// Ends the sharing of the descriptor table with the caller. Before this, the child must not open or
// close descriptors.
ZN_PLAIN bool own_descriptors(int copyBelow)
{
    return copyBelow == 0 || ::syscall(SYS_close_range, copyBelow, ~0U, CLOSE_RANGE_UNSHARE) == 0;
}

ZN_PLAIN int child_main(void* argument)
{
    auto* child = static_cast<Child*>(argument);
    const Launch& launch = *child->launch;
    if (own_descriptors(launch.copyBelow) && copy_mounts(launch.mounts) &&
        join(launch.joined.data(), launch.joined.size()) && place_descriptors(launch))
        ::syscall(SYS_execveat, launch.closeFrom, "", launch.argv, launch.envp, AT_EMPTY_PATH);
    child->error = errno;
    ::syscall(SYS_exit, 127);
    return 127;
}

} // namespace

UniqueFd helper_file()
{
    UniqueFd file(::memfd_create("zn-helper", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_EXEC));
    if (!file && errno == EINVAL) // before Linux 6.3: executable without this flag
        file.reset(::memfd_create("zn-helper", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    return sealed_file(
        std::move(file),
        {zn_helper_image, static_cast<std::size_t>(zn_helper_image_end - zn_helper_image)});
}

UniqueFd sealed_file(UniqueFd file, std::string_view content)
{
    if (!file || !znc::write_all(file.get(), content) ||
        ::fcntl(file.get(), F_ADD_SEALS,
                F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0)
        return UniqueFd();
    return file;
}

pid_t launch_helper(const Launch& launch, UniqueFd& pidfd)
{
    // A separate stack: the child must not overwrite the stack of this thread, which continues
    // after it. It is not zeroed, so the pages that the child does not need are never touched.
    const znc::MallocPtr<char> stack(static_cast<char*>(::malloc(kStackSize)));
    if (!stack || launch.fds.size() > kFdsMax)
        return znc::fail(stack ? EINVAL : ENOMEM);
    auto top = reinterpret_cast<std::uintptr_t>(stack.get() + kStackSize) & ~std::uintptr_t{15};

    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    Child child = {&launch, 0};
    const unsigned long sharing = launch.copyBelow != 0 ? CLONE_FILES : 0;
    int fd = -1;
    const int pid = ::__clone(
        child_main, reinterpret_cast<void*>(top),
        static_cast<int>(launch.cloneFlags | sharing | CLONE_VM | CLONE_VFORK | CLONE_PIDFD),
        &child, &fd);
    const int cloneError = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (pid < 0)
        return znc::fail(cloneError);
    pidfd.reset(fd);
    if (child.error != 0) {
        process_reap(fd);
        pidfd.reset();
        return znc::fail(child.error);
    }
    return pid;
}

} // namespace zn
