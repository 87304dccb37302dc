#include "launch.hpp"

#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef MFD_EXEC
#define MFD_EXEC 0x0010U // since Linux 6.3
#endif

extern "C" const char zn_helper_image[];
extern "C" const char zn_helper_image_end[];

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kFdAbove = 16; // above every number that a helper's descriptors have
constexpr std::size_t kFdsMax = 8;
constexpr std::size_t kStackSize = 64 * 1024;

struct Child {
    const Launch* launch;
    int error;
};

// Runs on the caller's memory while the caller waits, so it makes nothing but plain system calls
// and must not be instrumented.
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("address", "thread", "undefined")))
#endif
int child_main(void* argument)
{
    auto* child = static_cast<Child*>(argument);
    const Launch& launch = *child->launch;
    // Move everything out of the way of the numbers wanted, then into place.
    long high[kFdsMax];
    const std::size_t count = launch.fds.size();
    for (std::size_t i = 0; i < count; i++)
        high[i] = ::syscall(SYS_fcntl, launch.fds.data()[i].source, F_DUPFD, kFdAbove);
    const long file = ::syscall(SYS_fcntl, launch.file, F_DUPFD_CLOEXEC, kFdAbove);
    for (std::size_t i = 0; i < count; i++)
        if (::syscall(SYS_dup3, high[i], launch.fds.data()[i].target, 0) < 0)
            child->error = errno;
    if (child->error == 0 && ::syscall(SYS_dup3, file, launch.closeFrom, O_CLOEXEC) < 0)
        child->error = errno;
    if (child->error == 0 && ::syscall(SYS_close_range, launch.closeFrom + 1, ~0U, 0) < 0)
        child->error = errno;
    if (child->error == 0) {
        ::syscall(SYS_execveat, launch.closeFrom, "", launch.argv, launch.envp, AT_EMPTY_PATH);
        child->error = errno;
    }
    ::syscall(SYS_exit, 127);
    return 127;
}

} // namespace

UniqueFd helper_file()
{
    UniqueFd file(::memfd_create("zn-helper", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_EXEC));
    if (!file && errno == EINVAL) // older kernels: executable without saying so
        file.reset(::memfd_create("zn-helper", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file)
        return file;
    const char* at = zn_helper_image;
    while (at < zn_helper_image_end) {
        const ssize_t n =
            ::write(file.get(), at, static_cast<std::size_t>(zn_helper_image_end - at));
        if (n < 0)
            return UniqueFd();
        at += n;
    }
    if (::fcntl(file.get(), F_ADD_SEALS,
                F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0)
        return UniqueFd();
    return file;
}

pid_t launch_helper(const Launch& launch, UniqueFd& pidfd)
{
    // Not on this task's stack: the two run one after the other but must not overwrite each other.
    const auto stack = znc::malloc_array<char>(kStackSize);
    if (!stack || launch.fds.size() > kFdsMax) {
        errno = stack ? EINVAL : ENOMEM;
        return -1;
    }
    auto top = reinterpret_cast<std::uintptr_t>(stack.get() + kStackSize) & ~std::uintptr_t{15};

    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    Child child = {&launch, 0};
    int fd = -1;
    const int pid = ::clone(
        child_main, reinterpret_cast<void*>(top),
        static_cast<int>(launch.cloneFlags | CLONE_VM | CLONE_VFORK | CLONE_PIDFD), &child, &fd);
    const int cloneError = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (pid < 0) {
        errno = cloneError;
        return -1;
    }
    pidfd.reset(fd);
    if (child.error != 0) {
        siginfo_t info;
        ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(fd), &info, WEXITED | __WALL);
        pidfd.reset();
        errno = child.error;
        return -1;
    }
    return pid;
}

} // namespace zn
