// filter.cpp - the system calls that no container process may make. The list holds only what
// nothing else stops; everything that needs a capability is refused by the kernel already.
//
// - New user namespaces. In one, a process has every capability over what it makes next: it could
//   mount the host's cgroup hierarchies, which know the container's root as theirs, and change
//   the limits of processes outside.
// - Key rings. They belong to user ids, not to namespaces: the host's root and a container's
//   are one user, and share one.
// - The kernel's log, which is the host's.

#include "helper.hpp"
#include "sys.hpp"

#include <linux/audit.h>
#include <linux/errno.h>
#include <linux/filter.h>
#include <linux/prctl.h>
#include <linux/sched.h>
#include <linux/seccomp.h>

namespace zn {
namespace {

// One way to call the kernel and its numbers.
struct Interface {
    std::uint32_t arch;
    std::uint32_t clone, clone3, unshare, addKey, requestKey, keyctl, syslog;
};

constexpr Interface kNative = {
#if defined(__x86_64__)
    AUDIT_ARCH_X86_64,
#else
    AUDIT_ARCH_AARCH64,
#endif
    __NR_clone,        __NR_clone3, __NR_unshare, __NR_add_key,
    __NR_request_key,  __NR_keyctl, __NR_syslog};

// Programs of 32 bits run on the same kernel.
constexpr Interface kSmall =
#if defined(__x86_64__)
    {AUDIT_ARCH_I386, 120, 435, 310, 286, 287, 288, 103};
#else
    {AUDIT_ARCH_ARM, 120, 435, 337, 309, 310, 311, 103};
#endif

constexpr std::uint32_t kOtherNumbers = 0x40000000; // the third interface of x86-64
constexpr std::size_t kPerInterface = 16;

struct Program {
    sock_filter code[2 * kPerInterface + 1];
};

constexpr sock_filter load(std::size_t offset)
{
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
}

// Goes `distance` instructions beyond the next one when the test holds.
constexpr sock_filter when(unsigned test, std::uint32_t value, std::size_t distance)
{
    return {static_cast<std::uint16_t>(BPF_JMP | BPF_K | test), static_cast<std::uint8_t>(distance),
            0, value};
}

constexpr sock_filter answer(std::uint32_t what)
{
    return {BPF_RET | BPF_K, 0, 0, what};
}

constexpr void add_interface(sock_filter* code, const Interface& nr)
{
    constexpr std::size_t flags = 11;
    constexpr std::size_t refuse = 14;
    constexpr std::size_t absent = 15;
    code[0] = load(offsetof(seccomp_data, arch));
    code[1] = {BPF_JMP | BPF_K | BPF_JEQ, 0, kPerInterface - 2, nr.arch};
    code[2] = load(offsetof(seccomp_data, nr));
    code[3] = when(BPF_JEQ, nr.addKey, refuse - 4);
    code[4] = when(BPF_JEQ, nr.requestKey, refuse - 5);
    code[5] = when(BPF_JEQ, nr.keyctl, refuse - 6);
    code[6] = when(BPF_JEQ, nr.syslog, refuse - 7);
    code[7] = when(BPF_JEQ, nr.clone, flags - 8);
    code[8] = when(BPF_JEQ, nr.unshare, flags - 9);
    // Its flags are in memory, out of a filter's sight. Without it C libraries use clone.
    code[9] = when(BPF_JEQ, nr.clone3, absent - 10);
    code[10] = {BPF_JMP | BPF_K | BPF_JGE, absent - 11, 13 - 11, kOtherNumbers};
    code[flags] = load(offsetof(seccomp_data, args)); // the low half of the first argument
    code[12] = when(BPF_JSET, CLONE_NEWUSER, refuse - 13);
    code[13] = answer(SECCOMP_RET_ALLOW);
    code[refuse] = answer(SECCOMP_RET_ERRNO | EPERM);
    code[absent] = answer(SECCOMP_RET_ERRNO | ENOSYS);
}

constexpr Program make_program()
{
    Program program = {};
    add_interface(program.code, kNative);
    add_interface(program.code + kPerInterface, kSmall);
    program.code[2 * kPerInterface] = answer(SECCOMP_RET_ERRNO | ENOSYS);
    return program;
}

constexpr Program kProgram = make_program();

} // namespace

int filter_calls()
{
    const sock_fprog program = {sizeof kProgram.code / sizeof kProgram.code[0],
                                const_cast<sock_filter*>(kProgram.code)};
    // Without the flag older kernels slow the process down for the sake of untrusted filters.
    const long set = sys::call(__NR_seccomp, SECCOMP_SET_MODE_FILTER,
                               SECCOMP_FILTER_FLAG_SPEC_ALLOW, sys::arg(&program));
    // A kernel built without filters has none to offer.
    return set == -ENOSYS || set == -EINVAL ? 0 : static_cast<int>(-set);
}

} // namespace zn
