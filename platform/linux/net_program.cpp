#include "net_program.hpp"

#include "base/owned.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

constexpr uid_t kUser = 65534;
constexpr gid_t kGroup = 65534;
constexpr char kTunDir[] = "/dev/net";
constexpr char kTun[] = "/dev/net/tun";
constexpr int kNetworkFd = 3; // ZNNS_NET_NAMESPACE
constexpr int kReadyFd = 4;   // ZNNS_NET_READY
constexpr int kCapabilities[] = {CAP_NET_BIND_SERVICE, CAP_NET_ADMIN, CAP_SYS_ADMIN};

// /dev/net/tun may be accessible to root only. So the program gets a mount namespace with a device
// node that it may open; if that cannot be created, the host's is tried.
bool show_tun()
{
    struct stat st;
    if (::stat(kTun, &st) != 0 || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", kTunDir, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755,size=4k") != 0)
        return false;
    if (::mknod(kTun, S_IFCHR | 0666, st.st_rdev) == 0 && ::chmod(kTun, 0666) == 0)
        return true;
    return ::umount2(kTunDir, MNT_DETACH) == 0;
}

bool drop_others()
{
    for (int capability = 0; capability < 64; capability++) {
        if (std::find(std::begin(kCapabilities), std::end(kCapabilities), capability) !=
            std::end(kCapabilities))
            continue;
        if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0)
            return errno == EINVAL; // the kernel has no more
    }
    return true;
}

bool set_capabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    for (const int capability : kCapabilities)
        data[0].permitted |= 1U << capability;
    data[0].effective = data[0].permitted;
    data[0].inheritable = data[0].permitted;
    if (::syscall(SYS_capset, &header, data) != 0)
        return false;
    for (const int capability : kCapabilities)
        if (::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0) != 0)
            return false;
    return true;
}

bool become_user()
{
    return drop_others() && ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 &&
           ::setgroups(0, nullptr) == 0 && ::setresgid(kGroup, kGroup, kGroup) == 0 &&
           ::setresuid(kUser, kUser, kUser) == 0 && set_capabilities() &&
           ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

// The descriptors may have each other's target numbers: duplicate both to other numbers first.
bool place_descriptors(int network, int ready)
{
    const int from_network = ::fcntl(network, F_DUPFD, kReadyFd + 1);
    const int from_ready = ::fcntl(ready, F_DUPFD, kReadyFd + 1);
    return from_network >= 0 && from_ready >= 0 && ::dup2(from_network, kNetworkFd) >= 0 &&
           ::dup2(from_ready, kReadyFd) >= 0 && ::close_range(kReadyFd + 1, ~0U, 0) == 0;
}

// Signals blocked or ignored by the caller would stay so in the program.
void reset_signals()
{
    for (int signo = 1; signo < NSIG; signo++)
        ::signal(signo, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// Set last: the kernel clears it when the user changes.
bool die_with(pid_t parent)
{
    return ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0 && ::getppid() == parent;
}

} // namespace

bool net_program_may_open(int pipe)
{
    return ::fchown(pipe, kUser, kGroup) == 0;
}

bool detach_process(const int* kept, std::size_t count)
{
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const znc::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null || ::chdir("/") != 0)
        return false;
    for (int fd = 0; fd < 3; fd++)
        if (::dup2(null.get(), fd) < 0)
            return false;
    unsigned from = 3;
    for (;;) {
        const int* next = nullptr; // the lowest of those that are kept and not passed yet
        for (std::size_t i = 0; i < count; i++)
            if (kept[i] >= static_cast<int>(from) && (next == nullptr || kept[i] < *next))
                next = &kept[i];
        const unsigned last = next != nullptr ? static_cast<unsigned>(*next) - 1 : ~0U;
        if (from <= last && ::close_range(from, last, 0) != 0)
            return false;
        if (next == nullptr)
            return true;
        from = static_cast<unsigned>(*next) + 1;
    }
}

void net_program_exec(const NetProgram& program, pid_t parent, int network, int ready, int output)
{
    const char* step = program.path;
    char* const environment[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
    ::dup2(output, STDERR_FILENO);
    if (!show_tun())
        step = kTun;
    else if (!become_user())
        step = "changing the user";
    else if (!place_descriptors(network, ready))
        step = "passing descriptors";
    else if (die_with(parent)) {
        reset_signals();
        ::execve(program.path, const_cast<char* const*>(program.args), environment);
    }
    ::dprintf(STDERR_FILENO, "%s: %s\n", step, ::strerrordesc_np(errno));
    ::_exit(127);
}

} // namespace zn
