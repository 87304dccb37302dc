// spawner.cpp - starts a program in a namespace: joins the namespace, creates the program's process
// there as a child of the caller, confines it and executes the program.
//
// Between joining and executing the program, no process in the container can inspect these
// processes: they are not dumpable and have more capabilities than any container process.

#include "helper.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <asm/signal.h>
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/keyctl.h>
#include <linux/mqueue.h>
#include <linux/prctl.h>
#include <linux/resource.h>
#include <linux/sched.h>

namespace zn {
namespace {

constexpr long kNamespaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS;

// The capabilities of containers: those of root that ordinary server programs need. Since there is
// no user namespace, any other capability would apply to the host.
constexpr std::uint64_t bit(int capability)
{
    return std::uint64_t{1} << capability;
}
constexpr std::uint64_t kCapabilities =
    bit(CAP_CHOWN) | bit(CAP_DAC_OVERRIDE) | bit(CAP_FOWNER) | bit(CAP_FSETID) | bit(CAP_KILL) |
    bit(CAP_NET_BIND_SERVICE) | bit(CAP_SETFCAP) | bit(CAP_SETGID) | bit(CAP_SETPCAP) |
    bit(CAP_SETUID) | bit(CAP_SYS_CHROOT);

void report(wire::SpawnReport::Kind kind, long value)
{
    const wire::SpawnReport message = {kind, static_cast<std::int32_t>(value)};
    sys::call(__NR_write, wire::kSpawnerReport, sys::arg(&message), sizeof message);
}

[[noreturn]] void fail(long result)
{
    report(wire::SpawnReport::Kind::kError, -result);
    sys::exit_group(127);
}

void check(long result)
{
    if (result < 0)
        fail(result);
}

long number(const char* text)
{
    const bool negative = *text == '-';
    long value = 0;
    for (text += negative ? 1 : 0; *text >= '0' && *text <= '9'; text++)
        value = value * 10 + (*text - '0');
    return negative ? -value : value;
}

// execve resets signal handlers but keeps ignored signals and the signal mask.
void default_signals()
{
    struct {
        void* handler;
        unsigned long flags;
        void* restorer;
        unsigned long mask;
    } action = {};
    for (int signal = 1; signal <= 64; signal++)
        sys::call(__NR_rt_sigaction, signal, sys::arg(&action), 0, sizeof action.mask);
    const unsigned long none = 0;
    sys::call(__NR_rt_sigprocmask, 2 /* SIG_SETMASK */, sys::arg(&none), 0, sizeof none);
}

struct Limit {
    std::uint64_t soft;
    std::uint64_t hard;
};

// Raises the soft stack limit to `wanted`, at most to the hard limit; never lowers it.
void raise_stack(long wanted)
{
    Limit limit = {};
    if (sys::call(__NR_prlimit64, 0, RLIMIT_STACK, 0, sys::arg(&limit)) < 0)
        return;
    auto size = static_cast<std::uint64_t>(wanted);
    if (size <= limit.soft)
        return;
    if (size > limit.hard)
        size = limit.hard;
    limit.soft = size;
    sys::call(__NR_prlimit64, 0, RLIMIT_STACK, sys::arg(&limit), 0);
}

// Queue memory is counted per user, and root in a container is root on the host. Halving the limit
// leaves the other half to the daemon's clients.
void leave_queue_memory()
{
    Limit limit = {};
    check(sys::call(__NR_prlimit64, 0, RLIMIT_MSGQUEUE, 0, sys::arg(&limit)));
    if (limit.soft > MQ_BYTES_MAX)
        limit.soft = MQ_BYTES_MAX;
    limit.soft /= 2;
    limit.hard = limit.soft;
    check(sys::call(__NR_prlimit64, 0, RLIMIT_MSGQUEUE, sys::arg(&limit), 0));
}

// Gives the program a session keyring of its own. ENOSYS: the kernel has no keyrings. EPERM: a
// seccomp filter forbids the call, to the program as well.
void leave_keyring()
{
    const long joined = sys::call(__NR_keyctl, KEYCTL_JOIN_SESSION_KEYRING, 0);
    if (joined < 0 && joined != -ENOSYS && joined != -EPERM)
        fail(joined);
}

// Magic links are refused and the result is checked: a working directory outside the root would be
// an escape.
void enter_directory(const char* path)
{
    const sys::Fd directory(open_inside(path, O_DIRECTORY));
    if (!directory.valid())
        fail(-directory.error());
    check(sys::call(__NR_fchdir, directory.get()));
    char where[4096];
    check(sys::call(__NR_getcwd, sys::arg(where), sizeof where));
    if (where[0] != '/')
        fail(-ENOENT);
}

void drop_rights()
{
    check(sys::call(__NR_setgroups, 0, 0));
    check(sys::call(__NR_setresgid, 0, 0, 0));
    check(sys::call(__NR_setresuid, 0, 0, 0));
    // Secure bits set by the caller could keep capabilities from being dropped with root's user id.
    check(sys::call(__NR_prctl, PR_SET_SECUREBITS, 0));
    // Changing user ids may have reset this, and from here on this process has no more capabilities
    // than processes in the container.
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    for (int capability = 0;; capability++) {
        if (capability < 64 && (kCapabilities & bit(capability)) != 0)
            continue;
        const long dropped = sys::call(__NR_prctl, PR_CAPBSET_DROP, capability);
        if (dropped == -EINVAL) // the kernel has no more capabilities
            break;
        check(dropped);
    }
    sys::call(__NR_prctl, PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL);
    const auto low = static_cast<std::uint32_t>(kCapabilities);
    const auto high = static_cast<std::uint32_t>(kCapabilities >> 32);
    const __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct sets[2] = {{low, low, 0}, {high, high, 0}};
    check(sys::call(__NR_capset, sys::arg(&header), sys::arg(sets)));
    check(sys::call(__NR_prctl, PR_SET_NO_NEW_PRIVS, 1));
    check(-filter_calls());
}

[[noreturn]] void become_program(char** argv, char** envp)
{
    const long nice = number(argv[1]);
    const long stack = number(argv[2]);
    const char* directory = argv[3];
    const char* program = argv[4];

    check(sys::call(__NR_setsid)); // detaches from the caller's terminal
    sys::call(__NR_umask, 0);
    check(-replace_null_streams());
    sys::call(__NR_umask, 022);
    leave_keyring();
    check(-reset_processors());
    check(sys::call(__NR_setpriority, 0 /* PRIO_PROCESS */, 0, nice));
    raise_stack(stack);
    leave_queue_memory();
    drop_rights();
    // After dropping rights, so that the program could have entered the directory itself.
    enter_directory(directory);
    sys::call(__NR_close, wire::kSpawnerNamespace);
    default_signals();
    fail(sys::call(__NR_execve, sys::arg(program), sys::arg(argv + wire::kSpawnerFixedArgs),
                   sys::arg(envp)));
}

} // namespace

void spawner_run(char** argv, char** envp)
{
    sys::call(__NR_fcntl, wire::kSpawnerReport, F_SETFD, FD_CLOEXEC);
    sys::call(__NR_fcntl, wire::kSpawnerNamespace, F_SETFD, FD_CLOEXEC);
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    check(-reset_scheduling());
    check(-reset_memory());
    // The cgroup namespace is rooted at the program's control group, which is the caller's. In the
    // keeper's cgroup namespace, the program's cgroup path would lead through the host's groups.
    check(sys::call(__NR_unshare, CLONE_NEWCGROUP));
    check(sys::call(__NR_setns, wire::kSpawnerNamespace, kNamespaces));
    // setns on a PID namespace affects children only. CLONE_PARENT makes the new process a child of
    // the caller, which can wait for it; it has this process's exit signal. CLONE_VFORK suspends
    // this process until the new one has executed the program or has ended.
    const long pid = sys::call(__NR_clone, CLONE_PARENT | CLONE_VFORK, 0, 0, 0, 0);
    if (pid == 0)
        become_program(argv, envp);
    check(pid);
    report(wire::SpawnReport::Kind::kPid, pid);
    sys::exit_group(0);
}

} // namespace zn
