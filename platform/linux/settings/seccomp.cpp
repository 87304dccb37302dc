// seccomp.cpp - compiles the seccomp filter of a configuration.
//
// Rules without conditions are passed to libseccomp; those with conditions are compiled here
// (seccomp_conditions.hpp) and tested first. A profile has the same effect as with runc and crun,
// which leave the order to libseccomp:
//  - a rule whose answer is the default one has no effect;
//  - a rule without conditions overrides those with conditions for the same call; of two without
//    conditions, the first one takes effect;
//  - if a rule compares the same argument twice, each of its comparisons is a rule of its own: one
//    match is enough. Profiles that list the allowed values of an argument depend on it.
// Of several rules with conditions, the first that matches takes effect.

#include "seccomp.hpp"

#include "seccomp_conditions.hpp"
#include "seccomp_filter.hpp"
#include "seccomp_listener.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <linux/seccomp.h>

namespace zn {
namespace {

constexpr std::uint32_t kTraceMax = 0xffff;
constexpr std::uint32_t kRefused = SCMP_ACT_ERRNO(EPERM);

// Where something is in the profile, for reports.
struct Place {
    char field[sizeof(SettingsFault::field)] = {};

    __attribute__((format(printf, 2, 3))) explicit Place(const char* format, ...)
    {
        va_list values;
        va_start(values, format);
        ::vsnprintf(field, sizeof field, format, values);
        va_end(values);
    }
};

int refuse(SettingsFault& fault, const Place& place, const char* reason, int error = EINVAL)
{
    ::snprintf(fault.field, sizeof fault.field, "%s", place.field);
    ::snprintf(fault.reason, sizeof fault.reason, "%s", reason);
    return error;
}

// Reports an error of SeccompFilter.
int refuse_for(SettingsFault& fault, const Place& place, int error)
{
    switch (error) {
    case ENOTSUP:
        return refuse(fault, place, "the kernel does not support the action", ENOTSUP);
    case EFBIG:
        return refuse(fault, place,
                      "the filter is longer than the 4096 instructions of the kernel");
    case ENOMEM:
        return refuse(fault, place, "not enough memory", ENOMEM);
    default:
        return refuse(fault, place, ::strerrordesc_np(error), error);
    }
}

// ---------------------------------------------------------------- answers

// Whether the answer's number has a value that the kernel can use.
bool is_valid(const SeccompAnswer& answer)
{
    if (answer.action == SeccompAction::kErrno)
        return answer.number <= kSeccompErrnoMax;
    return answer.action != SeccompAction::kTrace || answer.number <= kTraceMax;
}

constexpr const char* kBadNumber = "not a number from 0 to 4094 (SCMP_ACT_TRACE: to 65535)";

// ---------------------------------------------------------------- architectures and flags

// The token of "SCMP_ARCH_X86_64" and so on; libseccomp names it "x86_64". 0 if there is none.
std::uint32_t architecture_of(const char* name)
{
    constexpr std::string_view kPrefix = "SCMP_ARCH_";
    std::array<char, 32> lower = {};
    const std::string_view all = name;
    if (!all.starts_with(kPrefix) || all.size() - kPrefix.size() >= lower.size())
        return 0;
    const std::string_view own = all.substr(kPrefix.size());
    if (std::any_of(own.begin(), own.end(), [](char c) { return c >= 'a' && c <= 'z'; }))
        return 0;
    std::transform(own.begin(), own.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return seccomp_arch_resolve_name(lower.data());
}

int add_architectures(const SeccompProfile& profile, SeccompFilter& filter,
                      SeccompConditions& checks, SettingsFault& fault)
{
    const int native = checks.add_architecture(seccomp_arch_native());
    if (native != 0)
        return refuse_for(fault, Place("linux.seccomp.architectures"), native);
    for (std::size_t i = 0; i < profile.architectures.size(); i++) {
        const Place place("linux.seccomp.architectures[%zu]", i);
        const std::uint32_t architecture = architecture_of(profile.architectures[i].get());
        if (architecture == 0)
            return refuse(fault, place, "not the name of an architecture");
        int error = filter.add_architecture(architecture);
        if (error == EINVAL)
            return refuse(fault, place, "cannot be combined with the machine's architecture");
        if (error == 0)
            error = checks.add_architecture(architecture);
        if (error != 0)
            return refuse_for(fault, place, error);
    }
    return 0;
}

struct Flag {
    std::string_view name;
    unsigned bit;
};
constexpr Flag kFlags[] = {
    {"SECCOMP_FILTER_FLAG_TSYNC", SECCOMP_FILTER_FLAG_TSYNC},
    {"SECCOMP_FILTER_FLAG_LOG", SECCOMP_FILTER_FLAG_LOG},
    {"SECCOMP_FILTER_FLAG_SPEC_ALLOW", SECCOMP_FILTER_FLAG_SPEC_ALLOW},
};

int read_flags(const SeccompProfile& profile, unsigned& flags, SettingsFault& fault)
{
    const bool hasListener = seccomp_notifies(profile);
    // Without this flag, kernels before 5.16 enable speculation mitigations for the process, which
    // slow it down. runc sets it, too, unless a profile names flags.
    if (profile.flags.empty())
        flags |= SECCOMP_FILTER_FLAG_SPEC_ALLOW;
    for (std::size_t i = 0; i < profile.flags.size(); i++) {
        const Place place("linux.seccomp.flags[%zu]", i);
        const std::string_view name = profile.flags[i].get();
        if (name == "SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV") {
            // The kernel accepts it only together with a listener.
            if (!hasListener)
                return refuse(fault, place, "needs a rule with SCMP_ACT_NOTIFY", ENOTSUP);
            flags |= SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;
            continue;
        }
        const auto* const known = std::find_if(std::begin(kFlags), std::end(kFlags),
                                               [&](const Flag& one) { return one.name == name; });
        if (known == std::end(kFlags))
            return refuse(fault, place, "not the name of a flag");
        flags |= known->bit;
    }
    // The kernel does not return a listener if it is to apply the filter to all threads, too. The
    // process that installs the filter has one.
    if (hasListener)
        flags = (flags & ~static_cast<unsigned>(SECCOMP_FILTER_FLAG_TSYNC)) |
                SECCOMP_FILTER_FLAG_NEW_LISTENER;
    return 0;
}

// ---------------------------------------------------------------- rules

// What the rules say about one call.
struct Call {
    const char* name;
    const SeccompRule* always = nullptr; // the first rule without conditions
};

// The calls of a profile, each once. Names that libseccomp does not know (newer calls, or those of
// another kernel) are left out.
int add_names(const SeccompRule& rule, List<Call>& calls)
{
    for (const Text& name : rule.names) {
        if (seccomp_syscall_resolve_name(name.get()) == __NR_SCMP_ERROR)
            continue;
        Call* call = std::find_if(calls.begin(), calls.end(), [&](const Call& one) {
            return std::strcmp(one.name, name.get()) == 0;
        });
        if (call == calls.end())
            call = calls.append({name.get()});
        if (call == nullptr)
            return ENOMEM;
        if (rule.args.empty() && call->always == nullptr)
            call->always = &rule;
    }
    return 0;
}

int check_rule(const SeccompRule& rule, std::size_t at, SettingsFault& fault)
{
    if (!is_valid(rule.answer))
        return refuse(fault, Place("linux.seccomp.syscalls[%zu].errnoRet", at), kBadNumber);
    if (!SeccompFilter::is_available(seccomp_answer(rule.answer)))
        return refuse_for(fault, Place("linux.seccomp.syscalls[%zu].action", at), ENOTSUP);
    for (std::size_t i = 0; i < rule.args.size(); i++)
        if (rule.args[i].index >= kSeccompArgs)
            return refuse(fault, Place("linux.seccomp.syscalls[%zu].args[%zu].index", at, i),
                          "not a number from 0 to 5");
    return 0;
}

int read_rules(const SeccompProfile& profile, List<Call>& calls, SettingsFault& fault)
{
    const std::uint32_t fallback = seccomp_answer(profile.fallback);
    for (std::size_t i = 0; i < profile.rules.size(); i++) {
        const SeccompRule& rule = profile.rules[i];
        int error = check_rule(rule, i, fault);
        if (error != 0)
            return error;
        if (seccomp_answer(rule.answer) != fallback)
            error = add_names(rule, calls);
        if (error != 0)
            return refuse_for(fault, Place("linux.seccomp.syscalls[%zu].names", i), error);
    }
    return 0;
}

// Adds the rules of all calls: to `filter` those without conditions, to `checks` the others.
int add_rules(const SeccompProfile& profile, const List<Call>& calls, SeccompFilter& filter,
              SeccompConditions& checks)
{
    for (const Call& call : calls) {
        std::uint32_t answer = 0;
        int error = 0;
        if (call.always != nullptr)
            answer = seccomp_answer(call.always->answer);
        else
            error = checks.add(profile, call.name, answer);
        if (error == 0)
            error = filter.add(seccomp_syscall_resolve_name(call.name), answer);
        if (error != 0)
            return error;
    }
    return 0;
}

} // namespace

int seccomp_compile(const SeccompProfile& profile, SeccompCode& code, SettingsFault& fault)
{
    if (!is_valid(profile.fallback))
        return refuse(fault, Place("linux.seccomp.defaultErrnoRet"), kBadNumber);
    if (const int refused = seccomp_check_listener(profile, fault); refused != 0)
        return refused;
    SeccompCode made;
    SeccompFilter filter;
    SeccompConditions checks(made.code);
    List<Call> calls;
    int error = filter.start(seccomp_answer(profile.fallback));
    if (error != 0)
        return refuse_for(fault, Place("linux.seccomp.defaultAction"), error);
    // Architectures first: a rule applies to those that the filter has when it is added.
    error = add_architectures(profile, filter, checks, fault);
    if (error == 0)
        error = read_flags(profile, made.flags, fault);
    if (error == 0)
        error = read_rules(profile, calls, fault);
    if (error != 0)
        return error;
    error = add_rules(profile, calls, filter, checks);
    if (error == 0 && profile.newerAreAbsent && seccomp_answer(profile.fallback) == kRefused)
        error = checks.add_absent(profile);
    if (error == 0)
        error = filter.compile(made.code);
    if (error != 0)
        return refuse_for(fault, Place("linux.seccomp"), error);
    code = std::move(made);
    return 0;
}

} // namespace zn
