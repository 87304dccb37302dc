// filter.cpp - the seccomp filter of container processes.
//
// A call is refused for one of three reasons: namespaces do not confine what it gives access to
// (keyrings, the kernel log, performance counters); it is a large part of the kernel that ordinary
// programs do not need and through which processes have escaped from containers before; or it needs
// a capability that containers do not have, in case the kernel's own check is faulty.
//
// A filter sees call numbers and registers, not memory: calls that depend on arguments in memory
// are refused entirely. Only the native call interface is allowed, because other interfaces have
// other numbers and combine many operations in one call (32-bit socketcall and ipc).

#include "helper.hpp"
#include "sys.hpp"

#include <linux/audit.h>
#include <linux/errno.h>
#include <linux/filter.h>
#include <linux/personality.h>
#include <linux/prctl.h>
#include <linux/sched.h>
#include <linux/seccomp.h>

// Missing in older kernel headers; the same number on all architectures.
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

// Numbers from here up belong to the x32 interface on x86-64 and do not exist elsewhere.
constexpr std::uint32_t kForeignNumbers = 0x40000000;

constexpr std::uint32_t kRefuse = SECCOMP_RET_ERRNO | EPERM;
constexpr std::uint32_t kAbsent = SECCOMP_RET_ERRNO | ENOSYS;
constexpr std::uint32_t kNoSuchFamily = SECCOMP_RET_ERRNO | EAFNOSUPPORT;

// Refused whatever their arguments.
struct Refused {
    std::uint32_t number;
    std::uint32_t answer;
};
constexpr Refused kRefused[] = {
    // The flags of clone3 are in memory. If it fails with ENOSYS, C libraries use clone, whose
    // flags are in a register.
    {__NR_clone3, kAbsent},
    // Keyrings belong to user ids, and root in a container is root on the host.
    {__NR_add_key, kRefuse},
    {__NR_request_key, kRefuse},
    {__NR_keyctl, kRefuse},
    // The kernel log is not namespaced.
    {__NR_syslog, kRefuse},
    // Access to the memory and descriptors of other processes, which may be outside the container:
    // a pidfd can be received over a Unix socket.
    {__NR_pidfd_getfd, kRefuse},
    {__NR_process_vm_readv, kRefuse},
    {__NR_process_vm_writev, kRefuse},
    {__NR_kcmp, kRefuse}, // compares kernel addresses
    // Access to files and namespaces other than by a path in the container.
    {__NR_name_to_handle_at, kRefuse},
    {__NR_open_by_handle_at, kRefuse},
    {__NR_setns, kRefuse},
    // Large interfaces with a history of vulnerabilities.
    {__NR_io_uring_setup, kRefuse}, // also performs operations that this filter does not see
    {__NR_io_uring_enter, kRefuse},
    {__NR_io_uring_register, kRefuse},
    {__NR_bpf, kRefuse},
    {__NR_perf_event_open, kRefuse},
    {__NR_userfaultfd, kRefuse},   // can suspend the kernel in the middle of a copy
    {__NR_fanotify_init, kRefuse}, // reports accesses to a whole file system
    // Mounts are made by the keeper only.
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
    // Control of the machine: modules, kexec, reboot, clocks, swap, quotas, accounting.
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
    {__NR_nfsservctl, kRefuse}, // obsolete, like those below
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

// Refused if the lower half of the first argument contains one of these bits.
struct RefusedFlags {
    std::uint32_t number;
    std::uint32_t flags;
};
// Creation of namespaces. In a user namespace a process has all capabilities over namespaces that
// it creates next: it could mount the host's cgroup hierarchies, which root in the container owns,
// and change limits of processes outside.
constexpr std::uint32_t kNewNamespaces = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET |
                                         CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;
constexpr RefusedFlags kRefusedFlags[] = {
    {__NR_unshare, kNewNamespaces | CLONE_NEWTIME},
    // CLONE_PARENT: the client that started the program would get an unknown child, whose end looks
    // like that of the program.
    {__NR_clone, kNewNamespaces | CLONE_PARENT},
};

// The allowed personalities: reporting a 32-bit machine or an old version number is harmless. All
// others disable protections that make exploits harder (address randomisation, non-executable
// memory).
constexpr std::uint32_t kAskOnly = 0xffffffff;
constexpr std::uint32_t kOldVersion = UNAME26;
constexpr std::uint32_t kPersonalities[] = {PER_LINUX, PER_LINUX32, kOldVersion,
                                            kOldVersion | PER_LINUX32, kAskOnly};

// Sockets to the hypervisor and its other guests are not confined by any namespace.
constexpr std::uint32_t kVsock = 40;

constexpr std::size_t kLength = 5 + 2 * sizeof kRefused / sizeof *kRefused +
                                5 * sizeof kRefusedFlags / sizeof *kRefusedFlags +
                                (4 + sizeof kPersonalities / sizeof *kPersonalities) + 5 + 1;

constexpr std::uint32_t kFirstArgument = offsetof(seccomp_data, args); // its lower half

// The code of the filter, in the order of the calls that append to it.
struct Program {
    sock_filter code[kLength] = {};
    std::size_t length = 0;

    constexpr void load(std::size_t offset)
    {
        code[length++] = {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
    }
    // Skips `held` instructions if the test is true, else `failed`.
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
    program.answer(SECCOMP_RET_KILL_PROCESS); // no call of the program could succeed
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
    // Without this flag, kernels before 5.16 enable speculation mitigations for the process, which
    // slow it down.
    return static_cast<int>(-sys::call(__NR_seccomp, SECCOMP_SET_MODE_FILTER,
                                       SECCOMP_FILTER_FLAG_SPEC_ALLOW, sys::arg(&program)));
}

} // namespace zn
