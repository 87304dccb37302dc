// seccomp_default.cpp - the filter of containers whose configuration has none.
//
// The answers, in order:
//  - another architecture: the process ends, since no call of the program could succeed;
//  - a number that no call has, or that is newer than this list: ENOSYS, so that C libraries use an
//    older call instead;
//  - allowed by name, capability or argument (seccomp_calls.hpp): allowed;
//  - all others: EPERM.
//
// A filter sees call numbers and registers, not memory. Only the native call interface is allowed,
// because other interfaces have other numbers and combine many operations in one call (32-bit
// socketcall and ipc).

#include "seccomp.hpp"

#include "seccomp_calls.hpp"
#include "seccomp_filter.hpp"

#include <array>
#include <bit>
#include <bitset>
#include <cerrno>
#include <cstddef>
#include <linux/netlink.h>
#include <linux/personality.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/socket.h>

namespace zn {
namespace {

// Numbers from here up get ENOSYS. On x86-64 this includes the x32 interface, whose numbers start
// at 0x40000000.
constexpr unsigned kNumbers = 512;

// Numbers above this one (set_mempolicy_home_node) are decided by number: which of them have a name
// depends on the version of libseccomp, and the filter must not.
constexpr unsigned kLastByName = 450;

constexpr std::uint32_t kRefuse = SCMP_ACT_ERRNO(EPERM);
constexpr std::uint32_t kAbsent = SCMP_ACT_ERRNO(ENOSYS);

// Calls that libseccomp may not know. They have the same numbers on all architectures, except for
// the first one.
struct ByNumber {
    unsigned number;
    std::uint32_t answer;
};
constexpr ByNumber kByNumber[] = {
#ifdef __x86_64__
    // uretprobe: not called by programs but by a trampoline that the kernel places in a program
    // which is traced from the host; Linux 6.11 to 6.13 ask the filter. If it is refused, the
    // program crashes.
    {335, SCMP_ACT_ALLOW},
#endif
    {451, SCMP_ACT_ALLOW}, // cachestat
    {452, SCMP_ACT_ALLOW}, // fchmodat2
    {454, SCMP_ACT_ALLOW}, // futex_wake
    {455, SCMP_ACT_ALLOW}, // futex_wait
    {456, SCMP_ACT_ALLOW}, // futex_requeue
    {467, kRefuse},        // open_tree_attr, like open_tree
};

// ---------------------------------------------------------------- checks before the list

// libseccomp compares all 64 bits of an argument with "not equal", but the kernel uses only the
// lower half of those of socket(): a program could pass a refused family by setting a higher bit.
// Therefore the refused families are tested by code of our own that precedes the list:
//  - AF_VSOCK: the hypervisor and its other guests are not confined by any namespace;
//  - NETLINK_AUDIT without CAP_AUDIT_WRITE: the kernel would answer EPERM, which libaudit takes for
//    a failure: logging in as another user would fail. EINVAL means that there is no audit system.
constexpr std::size_t kChecks = 13;

constexpr std::uint32_t low_half(unsigned argument)
{
    static_assert(std::endian::native == std::endian::little);
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args) +
                                      argument * sizeof(std::uint64_t));
}

constexpr sock_filter load(std::uint32_t offset)
{
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, offset};
}
constexpr sock_filter answer(std::uint32_t what)
{
    return {BPF_RET | BPF_K, 0, 0, what};
}
// At position `at`: continues at the position `held` if the test is true, else at `failed`.
constexpr sock_filter test(std::size_t at, unsigned how, std::uint32_t value, std::size_t held,
                           std::size_t failed)
{
    return {static_cast<std::uint16_t>(BPF_JMP | BPF_K | how),
            static_cast<std::uint8_t>(held - at - 1), static_cast<std::uint8_t>(failed - at - 1),
            value};
}

std::array<sock_filter, kChecks> make_checks(std::uint32_t architecture, std::uint32_t socketNumber,
                                             bool mayAudit)
{
    constexpr std::size_t kList = kChecks; // the position of the list
    constexpr std::size_t kNoAudit = 10;
    constexpr std::size_t kNoFamily = 11;
    constexpr std::size_t kNoCall = 12;
    return {{
        load(offsetof(seccomp_data, arch)),
        test(1, BPF_JEQ, architecture, 2, kList), // the list ends the process
        load(offsetof(seccomp_data, nr)),
        test(3, BPF_JGE, kNumbers, kNoCall, 4),
        test(4, BPF_JEQ, socketNumber, 5, kList),
        load(low_half(0)),
        test(6, BPF_JEQ, AF_VSOCK, kNoFamily, 7),
        test(7, BPF_JEQ, AF_NETLINK, mayAudit ? kList : 8, kList),
        load(low_half(2)),
        test(9, BPF_JEQ, NETLINK_AUDIT, kNoAudit, kList),
        answer(SECCOMP_RET_ERRNO | EINVAL),
        answer(SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        answer(SECCOMP_RET_ERRNO | ENOSYS),
    }};
}

// ---------------------------------------------------------------- the list

// Adds rules and remembers for which numbers an answer was chosen.
class Answers {
  public:
    int start() { return filter_.start(kRefuse); }

    // Adds an answer for the call, or for those whose argument is selected by `conditions`.
    int add(const char* name, std::uint32_t answer, std::span<const scmp_arg_cmp> conditions = {})
    {
        const int number = seccomp_syscall_resolve_name(name);
        return number < 0 ? 0 : add(static_cast<unsigned>(number), answer, conditions);
    }
    int add(unsigned number, std::uint32_t answer, std::span<const scmp_arg_cmp> conditions = {})
    {
        if (number >= kNumbers)
            return 0;
        decided_.set(number);
        return filter_.add(static_cast<int>(number), answer, conditions);
    }

    // Answers ENOSYS to all other numbers that no call has.
    int add_absent()
    {
        int error = 0;
        for (unsigned i = 0; i < kNumbers && error == 0; i++)
            if (!decided_.test(i) && !is_known(i))
                error = add(i, kAbsent);
        return error;
    }

    int compile(List<sock_filter>& code) const { return filter_.compile(code); }

  private:
    static bool is_known(unsigned number)
    {
        return number <= kLastByName && znc::MallocPtr<char>(seccomp_syscall_resolve_num_arch(
                                            SCMP_ARCH_NATIVE, static_cast<int>(number)));
    }

    SeccompFilter filter_;
    std::bitset<kNumbers> decided_;
};

// Creation of namespaces. In a user namespace a process has all capabilities over namespaces that
// it creates next: it could mount the host's cgroup hierarchies, which root in the container owns,
// and change limits of processes outside.
constexpr std::uint64_t kNewNamespaces = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET |
                                         CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;

// CLONE_PARENT is refused with any capability: the client that started the program would get an
// unknown child, whose end looks like that of the program. For the same reason there is no clone3,
// whose flags are in memory. If it fails with ENOSYS, C libraries use clone.
int add_clone(Answers& answers, bool mayCreateNamespaces)
{
    const std::uint64_t refused = mayCreateNamespaces ? 0 : kNewNamespaces;
    const scmp_arg_cmp cloneFlags[] = {{0, SCMP_CMP_MASKED_EQ, refused | CLONE_PARENT, 0}};
    const scmp_arg_cmp unshareFlags[] = {
        {0, SCMP_CMP_MASKED_EQ, kNewNamespaces | CLONE_NEWTIME, 0}};
    const std::span<const scmp_arg_cmp> all;
    int error = answers.add("clone3", kAbsent);
    if (error == 0)
        error = answers.add("clone", SCMP_ACT_ALLOW, cloneFlags);
    if (error == 0)
        error = answers.add("unshare", SCMP_ACT_ALLOW, mayCreateNamespaces ? all : unshareFlags);
    return error;
}

// The allowed personalities: reporting a 32-bit machine or an old version number is harmless. All
// others disable protections that make exploits harder (address randomisation, non-executable
// memory). The kernel uses the lower half of the argument.
constexpr std::uint64_t kLowerHalf = 0xffffffff;
constexpr std::uint64_t kAskOnly = 0xffffffff;
constexpr std::uint64_t kOldVersion = UNAME26;
constexpr std::uint64_t kPersonalities[] = {PER_LINUX, PER_LINUX32, kOldVersion,
                                            kOldVersion | PER_LINUX32, kAskOnly};

int add_personality(Answers& answers)
{
    for (const std::uint64_t one : kPersonalities) {
        const scmp_arg_cmp condition[] = {{0, SCMP_CMP_MASKED_EQ, kLowerHalf, one}};
        const int error = answers.add("personality", SCMP_ACT_ALLOW, condition);
        if (error != 0)
            return error;
    }
    return 0;
}

int add_list(Answers& answers, std::uint64_t capabilities)
{
    int error = answers.start();
    for (const char* name : kAllowed)
        if (error == 0)
            error = answers.add(name, SCMP_ACT_ALLOW);
    for (const WithCapability& one : kWithCapability)
        if (error == 0 && (capabilities & one.capabilities) != 0)
            error = answers.add(one.name, SCMP_ACT_ALLOW);
    if (error == 0)
        error = add_clone(answers, (capabilities & kAdmin) != 0);
    if (error == 0)
        error = add_personality(answers);
    for (const ByNumber& one : kByNumber)
        if (error == 0)
            error = answers.add(one.number, one.answer);
    return error != 0 ? error : answers.add_absent();
}

} // namespace

int seccomp_default(std::uint64_t capabilities, SeccompCode& code)
{
    const int socketNumber = seccomp_syscall_resolve_name("socket");
    if (socketNumber < 0)
        return ENOTSUP; // a machine that combines the calls on sockets in one
    SeccompCode made;
    // Without this flag, kernels before 5.16 enable speculation mitigations for the process, which
    // slow it down.
    made.flags = SECCOMP_FILTER_FLAG_SPEC_ALLOW;
    for (const sock_filter& one :
         make_checks(seccomp_arch_native(), static_cast<std::uint32_t>(socketNumber),
                     (capabilities & capability(CAP_AUDIT_WRITE)) != 0))
        if (made.code.append(one) == nullptr)
            return ENOMEM;
    Answers answers;
    int error = add_list(answers, capabilities);
    if (error == 0)
        error = answers.compile(made.code);
    if (error == 0)
        code = std::move(made);
    return error;
}

} // namespace zn
