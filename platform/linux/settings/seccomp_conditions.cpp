#include "seccomp_conditions.hpp"

#include "seccomp_filter.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <linux/seccomp.h>

namespace zn {
namespace {

// Targets of jumps that are set when the position is known. Distances never become that long: a
// comparison has at most six instructions, and a rule six comparisons.
constexpr std::uint8_t kNext = 254; // the end of the comparison, which holds
constexpr std::uint8_t kFail = 255; // the end of the rule, which does not match

constexpr sock_filter load(std::size_t offset)
{
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
}
constexpr sock_filter keep_bits(std::uint32_t mask)
{
    return {BPF_ALU | BPF_AND | BPF_K, 0, 0, mask};
}
constexpr sock_filter test(unsigned how, std::uint32_t value, std::uint8_t held,
                           std::uint8_t failed)
{
    return {static_cast<std::uint16_t>(BPF_JMP | BPF_K | how), held, failed, value};
}
constexpr sock_filter skip()
{
    return {BPF_JMP | BPF_JA, 0, 0, 0};
}
constexpr sock_filter give(std::uint32_t answer)
{
    return {BPF_RET | BPF_K, 0, 0, answer};
}

// Where the halves of an argument are.
constexpr std::size_t low(unsigned argument)
{
    return offsetof(seccomp_data, args) + argument * sizeof(std::uint64_t) +
           (std::endian::native == std::endian::little ? 0 : sizeof(std::uint32_t));
}
constexpr std::size_t high(unsigned argument)
{
    return offsetof(seccomp_data, args) + argument * sizeof(std::uint64_t) +
           (std::endian::native == std::endian::little ? sizeof(std::uint32_t) : 0);
}

// The instructions of a comparison: the upper halves decide unless they are equal.
struct Comparison {
    std::array<sock_filter, 6> code = {};
    std::size_t length = 0;

    constexpr void add(const sock_filter& one) { code[length++] = one; }
};

// How a value is compared: where to continue if the argument's upper half is greater or less than
// the value's, and the test of the lower halves if the upper ones are equal.
struct Steps {
    SeccompCompare compare;
    std::uint8_t above;
    std::uint8_t below;
    unsigned test;
    std::uint8_t held;
    std::uint8_t failed;
};
constexpr Steps kSteps[] = {
    {SeccompCompare::kNe, kNext, kNext, BPF_JEQ, kFail, 0},
    {SeccompCompare::kEq, kFail, kFail, BPF_JEQ, 0, kFail},
    {SeccompCompare::kGt, kNext, kFail, BPF_JGT, 0, kFail},
    {SeccompCompare::kGe, kNext, kFail, BPF_JGE, 0, kFail},
    {SeccompCompare::kLt, kFail, kNext, BPF_JGE, kFail, 0},
    {SeccompCompare::kLe, kFail, kNext, BPF_JGT, kFail, 0},
};

Comparison comparison_of(const SeccompArg& arg)
{
    const auto upper = static_cast<std::uint32_t>(arg.value >> 32);
    const auto lower = static_cast<std::uint32_t>(arg.value);
    Comparison made;
    made.add(load(high(arg.index)));
    if (arg.compare == SeccompCompare::kMaskedEq) { // the value is the mask
        const std::uint64_t wanted = arg.value & arg.valueTwo;
        made.add(keep_bits(upper));
        made.add(test(BPF_JEQ, static_cast<std::uint32_t>(wanted >> 32), 0, kFail));
        made.add(load(low(arg.index)));
        made.add(keep_bits(lower));
        made.add(test(BPF_JEQ, static_cast<std::uint32_t>(wanted), 0, kFail));
        return made;
    }
    const Steps& steps = *std::find_if(std::begin(kSteps), std::end(kSteps), [&](const Steps& one) {
        return one.compare == arg.compare;
    });
    if (steps.above != steps.below)
        made.add(test(BPF_JGT, upper, steps.above, 0));
    made.add(test(BPF_JEQ, upper, 0, steps.below));
    made.add(load(low(arg.index)));
    made.add(test(steps.test, lower, steps.held, steps.failed));
    return made;
}

bool is_jump(const sock_filter& one)
{
    return BPF_CLASS(one.code) == BPF_JMP && BPF_OP(one.code) != BPF_JA;
}

// Sets all jumps to `target` from `begin` on: they continue at the end of the code.
void set_target(List<sock_filter>& code, std::size_t begin, std::uint8_t target)
{
    for (std::size_t at = begin; at < code.size(); at++) {
        if (!is_jump(code[at]))
            continue;
        const auto distance = static_cast<std::uint8_t>(code.size() - at - 1);
        if (code[at].jt == target)
            code[at].jt = distance;
        if (code[at].jf == target)
            code[at].jf = distance;
    }
}

// libseccomp has no conditions that compare an argument twice. In a profile they are alternatives.
bool compares_twice(std::span<const SeccompArg> args)
{
    std::array<bool, kSeccompArgs> used = {};
    return std::any_of(args.begin(), args.end(),
                       [&](const SeccompArg& arg) { return std::exchange(used[arg.index], true); });
}

// Whether the kernel prefers answer `a` to `b` if two filters give them.
bool is_stricter(std::uint32_t a, std::uint32_t b)
{
    return static_cast<std::int32_t>(a & SECCOMP_RET_ACTION_FULL) <
           static_cast<std::int32_t>(b & SECCOMP_RET_ACTION_FULL);
}

bool names_call(const SeccompRule& rule, const char* name)
{
    return std::any_of(rule.names.begin(), rule.names.end(),
                       [&](const Text& one) { return std::strcmp(one.get(), name) == 0; });
}

// The architecture as the kernel reports it. Calls of x32 have other numbers, but no architecture
// of their own.
std::uint32_t reported(std::uint32_t architecture)
{
    return architecture == SCMP_ARCH_X32 ? SCMP_ARCH_X86_64 : architecture;
}

// The greatest number of a call that the profile names; -1 if there is none.
int greatest_number(const SeccompProfile& profile, std::uint32_t architecture)
{
    int greatest = -1;
    for (const SeccompRule& rule : profile.rules)
        for (const Text& name : rule.names)
            greatest =
                std::max(greatest, seccomp_syscall_resolve_name_arch(architecture, name.get()));
    return greatest;
}

} // namespace

std::uint32_t seccomp_answer(const SeccompAnswer& answer)
{
    switch (answer.action) {
    case SeccompAction::kKillProcess:
        return SCMP_ACT_KILL_PROCESS;
    case SeccompAction::kKillThread:
        return SCMP_ACT_KILL_THREAD;
    case SeccompAction::kTrap:
        return SCMP_ACT_TRAP;
    case SeccompAction::kErrno:
        return SCMP_ACT_ERRNO(answer.number);
    case SeccompAction::kTrace:
        return SCMP_ACT_TRACE(answer.number);
    case SeccompAction::kAllow:
        return SCMP_ACT_ALLOW;
    case SeccompAction::kLog:
        return SCMP_ACT_LOG;
    case SeccompAction::kNotify:
        return SCMP_ACT_NOTIFY;
    }
    return SCMP_ACT_KILL_PROCESS;
}

int SeccompConditions::append(const sock_filter& one)
{
    if (code_.size() >= kSeccompLengthMax)
        return EFBIG;
    return code_.append(one) != nullptr ? 0 : ENOMEM;
}

int SeccompConditions::append_all(std::initializer_list<sock_filter> all)
{
    for (const sock_filter& one : all)
        if (const int error = append(one); error != 0)
            return error;
    return 0;
}

int SeccompConditions::add_architecture(std::uint32_t architecture)
{
    if (std::find(architectures_.begin(), architectures_.end(), architecture) !=
        architectures_.end())
        return 0;
    return architectures_.append(architecture) != nullptr ? 0 : ENOMEM;
}

int SeccompConditions::add_comparison(const SeccompArg& arg)
{
    const Comparison made = comparison_of(arg);
    const std::size_t begin = code_.size();
    for (std::size_t i = 0; i < made.length; i++) {
        const int error = append(made.code[i]);
        if (error != 0)
            return error;
    }
    set_target(code_, begin, kNext);
    return 0;
}

int SeccompConditions::add_alternative(std::span<const SeccompArg> args, std::uint32_t answer)
{
    const std::size_t begin = code_.size();
    for (const SeccompArg& arg : args) {
        const int error = add_comparison(arg);
        if (error != 0)
            return error;
    }
    const int error = append(give(answer));
    if (error == 0)
        set_target(code_, begin, kFail);
    return error;
}

int SeccompConditions::add_rule(const SeccompRule& rule)
{
    const std::uint32_t answer = seccomp_answer(rule.answer);
    const std::span<const SeccompArg> args = rule.args.all();
    if (!compares_twice(args))
        return add_alternative(args, answer);
    for (std::size_t i = 0; i < args.size(); i++) {
        const int error = add_alternative(args.subspan(i, 1), answer);
        if (error != 0)
            return error;
    }
    return 0;
}

int SeccompConditions::add_call(const SeccompProfile& profile, const char* name,
                                std::uint32_t architecture, std::uint32_t number)
{
    const std::uint32_t fallback = seccomp_answer(profile.fallback);
    const std::size_t begin = code_.size();
    constexpr std::size_t kSkips[] = {2, 5}; // to the end, which may be too far for a test
    const int begun =
        append_all({load(offsetof(seccomp_data, arch)), test(BPF_JEQ, reported(architecture), 1, 0),
                    skip(), load(offsetof(seccomp_data, nr)), test(BPF_JEQ, number, 1, 0), skip()});
    if (begun != 0)
        return begun;
    for (const SeccompRule& rule : profile.rules) {
        if (seccomp_answer(rule.answer) == fallback || !names_call(rule, name))
            continue;
        const int error = add_rule(rule);
        if (error != 0)
            return error;
    }
    const int error = append(give(fallback));
    for (const std::size_t at : kSkips)
        code_[begin + at].k = static_cast<std::uint32_t>(code_.size() - begin - at - 1);
    return error;
}

int SeccompConditions::add(const SeccompProfile& profile, const char* name, std::uint32_t& unseen)
{
    unseen = seccomp_answer(profile.fallback);
    bool hidden = false;
    for (const std::uint32_t architecture : architectures_) {
        const int number = seccomp_syscall_resolve_name_arch(architecture, name);
        if (number < 0) {
            hidden = true;
            continue;
        }
        const int error = add_call(profile, name, architecture, static_cast<std::uint32_t>(number));
        if (error != 0)
            return error;
    }
    for (const SeccompRule& rule : profile.rules)
        if (hidden && names_call(rule, name) && is_stricter(seccomp_answer(rule.answer), unseen))
            unseen = seccomp_answer(rule.answer);
    return 0;
}

int SeccompConditions::add_absent_above(std::uint32_t architecture, std::uint32_t number)
{
    constexpr std::uint32_t kX32 = 0x40000000; // added to the numbers of calls of x32
    // Other numbers, and those of x32 on x86-64, are left to the following code.
    const std::uint32_t end = architecture == SCMP_ARCH_X86_64 ? kX32 : UINT32_MAX;
    return append_all({load(offsetof(seccomp_data, arch)),
                       test(BPF_JEQ, reported(architecture), 0, 4),
                       load(offsetof(seccomp_data, nr)), test(BPF_JGT, number, 0, 2),
                       test(BPF_JGE, end, 1, 0), give(SCMP_ACT_ERRNO(ENOSYS))});
}

int SeccompConditions::add_absent(const SeccompProfile& profile)
{
    for (const std::uint32_t architecture : architectures_) {
        const int number = greatest_number(profile, architecture);
        const int error =
            number < 0 ? 0 : add_absent_above(architecture, static_cast<std::uint32_t>(number));
        if (error != 0)
            return error;
    }
    return 0;
}

} // namespace zn
