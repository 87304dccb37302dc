// filter.cpp - the system calls that no container process may make.
//
// Each is refused for one of three reasons: namespaces do not confine what it reaches (key rings,
// the kernel's log, performance counters); it is a large part of the kernel that ordinary programs
// do without and that has been the way out of containers before; or it needs a capability that no
// container has, and the filter stands in case the kernel's own check has a hole.
//
// A filter sees numbers and registers, never memory: calls whose arguments decide and lie in memory
// are refused whole. Only the processor's own call interface is offered, because others have other
// numbers and bundle many calls into one (32-bit socketcall and ipc).

#include "helper.hpp"
#include "sys.hpp"

#include <linux/audit.h>
#include <linux/errno.h>
#include <linux/filter.h>
#include <linux/personality.h>
#include <linux/prctl.h>
#include <linux/sched.h>
#include <linux/seccomp.h>

// Newer than the kernel headers this may be built with; the same on all architectures.
#ifndef __NR_open_tree_attr
#define __NR_open_tree_attr 467
#endif

namespace zn {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#else
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#endif

// Numbers from here up are the x32 interface of x86-64, and no call at all elsewhere.
constexpr std::uint32_t kForeignNumbers = 0x40000000;

constexpr std::uint32_t kRefuse = SECCOMP_RET_ERRNO | EPERM;
constexpr std::uint32_t kAbsent = SECCOMP_RET_ERRNO | ENOSYS;
constexpr std::uint32_t kNoSuchFamily = SECCOMP_RET_ERRNO | EAFNOSUPPORT;

// Refused whatever the arguments are.
struct Refused {
    std::uint32_t number;
    std::uint32_t answer;
};
constexpr Refused kRefused[] = {
    // Whose flags are in memory: without it C libraries use clone, whose flags can be looked at.
    {__NR_clone3, kAbsent},
    // Key rings belong to user ids, and the host's root and a container's are one user.
    {__NR_add_key, kRefuse},
    {__NR_request_key, kRefuse},
    {__NR_keyctl, kRefuse},
    // The kernel's log is the host's.
    {__NR_syslog, kRefuse},
    // Other processes' memory and descriptors: what is reached may be outside, by a pidfd that a
    // Unix socket hands over.
    {__NR_pidfd_getfd, kRefuse},
    {__NR_process_vm_readv, kRefuse},
    {__NR_process_vm_writev, kRefuse},
    {__NR_kcmp, kRefuse}, // compares kernel addresses
    // Ways to files and namespaces that no path inside leads to.
    {__NR_name_to_handle_at, kRefuse},
    {__NR_open_by_handle_at, kRefuse},
    {__NR_setns, kRefuse},
    // Large interfaces with a history of holes.
    {__NR_io_uring_setup, kRefuse}, // also makes calls that this filter never sees
    {__NR_io_uring_enter, kRefuse},
    {__NR_io_uring_register, kRefuse},
    {__NR_bpf, kRefuse},
    {__NR_perf_event_open, kRefuse},
    {__NR_userfaultfd, kRefuse},   // stops the kernel in the middle of a copy for as long as wanted
    {__NR_fanotify_init, kRefuse}, // tells of files of the whole filesystem
    // Mounts are made by the keeper.
    {__NR_mount, kRefuse},
    {__NR_umount2, kRefuse},
    {__NR_pivot_root, kRefuse},
    {__NR_open_tree, kRefuse},
    {__NR_open_tree_attr, kRefuse},
    {__NR_move_mount, kRefuse},
    {__NR_fsopen, kRefuse},
    {__NR_fsconfig, kRefuse},
    {__NR_fsmount, kRefuse},
    {__NR_fspick, kRefuse},
    {__NR_mount_setattr, kRefuse},
    // The machine: other code in the kernel, another kernel, its clock, swap, quotas, accounting.
    {__NR_init_module, kRefuse},
    {__NR_finit_module, kRefuse},
    {__NR_delete_module, kRefuse},
    {__NR_kexec_load, kRefuse},
    {__NR_kexec_file_load, kRefuse},
    {__NR_reboot, kRefuse},
    {__NR_settimeofday, kRefuse},
    {__NR_clock_settime, kRefuse},
    {__NR_swapon, kRefuse},
    {__NR_swapoff, kRefuse},
    {__NR_quotactl, kRefuse},
    {__NR_quotactl_fd, kRefuse},
    {__NR_acct, kRefuse},
    {__NR_vhangup, kRefuse},
    {__NR_nfsservctl, kRefuse}, // long without use, and so are those below
#ifdef __x86_64__
    {__NR_iopl, kRefuse},
    {__NR_ioperm, kRefuse},
    {__NR_uselib, kRefuse},
    {__NR_create_module, kRefuse},
    {__NR_get_kernel_syms, kRefuse},
    {__NR_query_module, kRefuse},
    {__NR__sysctl, kRefuse},
    {__NR_sysfs, kRefuse},
    {__NR_ustat, kRefuse},
#endif
};

// Refused when the low half of the first argument has one of these bits.
struct RefusedFlags {
    std::uint32_t number;
    std::uint32_t flags;
};
// New namespaces. In one for users a process has every capability over what it makes next: it could
// mount the host's cgroup hierarchies, which know the container's root as theirs, and change the
// limits of processes outside.
constexpr std::uint32_t kNewNamespaces = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET |
                                         CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;
constexpr RefusedFlags kRefusedFlags[] = {
    {__NR_unshare, kNewNamespaces | CLONE_NEWTIME},
    // CLONE_PARENT: the client that started the program would get a child that it does not know,
    // whose end looks like the program's.
    {__NR_clone, kNewNamespaces | CLONE_PARENT},
};

// Only these personalities: 32-bit names and old version numbers harm nobody, the others undo what
// makes holes hard to use (addresses that cannot be guessed, memory that cannot be executed).
constexpr std::uint32_t kAskOnly = 0xffffffff;
constexpr std::uint32_t kOldVersion = UNAME26;
constexpr std::uint32_t kPersonalities[] = {PER_LINUX, PER_LINUX32, kOldVersion,
                                            kOldVersion | PER_LINUX32, kAskOnly};

// No namespace confines sockets to the hypervisor and its other guests.
constexpr std::uint32_t kVsock = 40;

constexpr std::size_t kLength = 5 + 2 * sizeof kRefused / sizeof *kRefused +
                                5 * sizeof kRefusedFlags / sizeof *kRefusedFlags +
                                (4 + sizeof kPersonalities / sizeof *kPersonalities) + 5 + 1;

constexpr std::uint32_t kFirstArgument = offsetof(seccomp_data, args); // its low half

// The filter's code, in the order it is added.
struct Program {
    sock_filter code[kLength] = {};
    std::size_t length = 0;

    constexpr void load(std::size_t offset)
    {
        code[length++] = {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
    }
    // Skips so many instructions when the test holds, and so many when it does not.
    constexpr void skip(unsigned test, std::uint32_t value, std::size_t held, std::size_t failed)
    {
        code[length++] = {static_cast<std::uint16_t>(BPF_JMP | BPF_K | test),
                          static_cast<std::uint8_t>(held), static_cast<std::uint8_t>(failed),
                          value};
    }
    constexpr void answer(std::uint32_t what) { code[length++] = {BPF_RET | BPF_K, 0, 0, what}; }
};

constexpr void add_personality(Program& program)
{
    constexpr std::size_t count = sizeof kPersonalities / sizeof *kPersonalities;
    program.skip(BPF_JEQ, __NR_personality, 0, count + 3);
    program.load(kFirstArgument);
    for (std::size_t i = 0; i < count; i++)
        program.skip(BPF_JEQ, kPersonalities[i], count - i, 0);
    program.answer(kRefuse);
    program.answer(SECCOMP_RET_ALLOW);
}

constexpr Program make_program()
{
    Program program;
    program.load(offsetof(seccomp_data, arch));
    program.skip(BPF_JEQ, kArchitecture, 1, 0);
    program.answer(SECCOMP_RET_KILL_PROCESS); // a program that cannot make one call can do nothing
    program.load(offsetof(seccomp_data, nr));
    program.skip(BPF_JGE, kForeignNumbers, kLength - 1 - 5, 0);
    for (const Refused& one : kRefused) {
        program.skip(BPF_JEQ, one.number, 0, 1);
        program.answer(one.answer);
    }
    for (const RefusedFlags& one : kRefusedFlags) {
        program.skip(BPF_JEQ, one.number, 0, 4);
        program.load(kFirstArgument);
        program.skip(BPF_JSET, one.flags, 0, 1);
        program.answer(kRefuse);
        program.answer(SECCOMP_RET_ALLOW);
    }
    add_personality(program);
    program.skip(BPF_JEQ, __NR_socket, 0, 3);
    program.load(kFirstArgument);
    program.skip(BPF_JEQ, kVsock, 0, 1);
    program.answer(kNoSuchFamily);
    program.answer(SECCOMP_RET_ALLOW);
    program.answer(kAbsent);
    return program;
}

constexpr Program kProgram = make_program();
static_assert(kProgram.length == kLength);
static_assert(kLength - 1 - 5 <= 255, "a jump's distance has eight bits");

} // namespace

int filter_calls()
{
    const sock_fprog program = {kLength, const_cast<sock_filter*>(kProgram.code)};
    // Without the flag older kernels slow the process down for the sake of untrusted filters.
    return static_cast<int>(-sys::call(__NR_seccomp, SECCOMP_SET_MODE_FILTER,
                                       SECCOMP_FILTER_FLAG_SPEC_ALLOW, sys::arg(&program)));
}

} // namespace zn
