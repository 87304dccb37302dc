// Tests of whole profiles: several rules and conditions, architectures, flags, and what is refused.
#include "settings/seccomp.hpp"
#include "settings/seccomp_conditions.hpp"
#include "settings/seccomp_listener.hpp"

#include "alloc_fault.hpp"
#include "descriptors.hpp"
#include "seccomp_code.hpp"
#include "seccomp_profile.hpp"

#include <algorithm>
#include <csignal>
#include <random>

namespace {

constexpr SeccompCompare kEq = SeccompCompare::kEq;
constexpr std::uint32_t kAllowed = SECCOMP_RET_ALLOW;
const std::uint32_t kBusy = error_answer(EBUSY);

constexpr std::uint32_t kNativeGetppid = SYS_getppid;
constexpr std::uint32_t kI386Getppid = 64;

} // namespace

// ---------------------------------------------------------------- rules

TEST(SeccompProfile, AllConditionsOfARuleMustHold)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, error(EBUSY),
                                                     {{0, kEq, 1, 0},
                                                      {3, SeccompCompare::kGt, 0x100000000, 0},
                                                      {5, SeccompCompare::kMaskedEq, 0xf0, 0x20}}));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_getppid, {1, 0, 0, 0x100000001, 0, 0xffff2f}), kBusy);
    EXPECT_EQ(machine(SYS_getppid, {2, 0, 0, 0x100000001, 0, 0xffff2f}), kAllowed);
    EXPECT_EQ(machine(SYS_getppid, {1, 0, 0, 0x100000000, 0, 0xffff2f}), kAllowed);
    EXPECT_EQ(machine(SYS_getppid, {1, 0, 0, 0x100000001, 0, 0xffff3f}), kAllowed);
    EXPECT_EQ(machine(SYS_getpid, {1, 0, 0, 0x100000001, 0, 0xffff2f}), kAllowed);
}

TEST(SeccompProfile, OneOfSeveralRulesForACallMustMatch)
{
    const SeccompCode code =
        compiled(Profile(error(EPERM))
                     .rule({"getppid"}, kAllow, {{0, kEq, 1, 0}, {1, kEq, 2, 0}})
                     .rule({"getppid", "getpid"}, kAllow, {{0, kEq, 3, 0}})
                     .rule({"getppid"}, error(EBUSY), {{0, kEq, 4, 0}}));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_getppid, {1, 2}), kAllowed);
    EXPECT_EQ(machine(SYS_getppid, {1, 3}), error_answer(EPERM));
    EXPECT_EQ(machine(SYS_getppid, {3, 3}), kAllowed);
    EXPECT_EQ(machine(SYS_getppid, {4, 0}), kBusy);
    EXPECT_EQ(machine(SYS_getppid, {5, 0}), error_answer(EPERM));
    EXPECT_EQ(machine(SYS_getpid, {3}), kAllowed);
    EXPECT_EQ(machine(SYS_getpid, {1, 2}), error_answer(EPERM));
}

TEST(SeccompProfile, ComparisonsOfTheSameArgumentAreAlternatives)
{
    const SeccompCode code = compiled(Profile().rule(
        {"getppid"}, error(EBUSY), {{0, kEq, 1, 0}, {0, kEq, 0x200000000, 0}, {2, kEq, 7, 0}}));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_getppid, {1, 0, 0}), kBusy);
    EXPECT_EQ(machine(SYS_getppid, {0x200000000, 0, 0}), kBusy);
    EXPECT_EQ(machine(SYS_getppid, {0, 0, 7}), kBusy); // also those of other arguments
    EXPECT_EQ(machine(SYS_getppid, {2, 7, 1}), kAllowed);
}

TEST(SeccompProfile, ARuleWithoutConditionsOverridesThoseWithConditions)
{
    const SeccompCode before = compiled(Profile()
                                            .rule({"getppid"}, error(EBUSY))
                                            .rule({"getppid"}, error(EPERM), {{0, kEq, 1, 0}}));
    EXPECT_EQ(FilterMachine(before)(SYS_getppid, {1}), kBusy);
    EXPECT_EQ(FilterMachine(before)(SYS_getppid, {2}), kBusy);
    const SeccompCode after = compiled(Profile()
                                           .rule({"getppid"}, error(EPERM), {{0, kEq, 1, 0}})
                                           .rule({"getppid"}, error(EBUSY)));
    EXPECT_EQ(FilterMachine(after)(SYS_getppid, {1}), kBusy);
    EXPECT_EQ(FilterMachine(after)(SYS_getppid, {2}), kBusy);
}

TEST(SeccompProfile, OfTwoRulesWithoutConditionsTheFirstTakesEffect)
{
    const SeccompCode code =
        compiled(Profile().rule({"getppid"}, error(EBUSY)).rule({"getppid"}, error(EPERM)));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid), kBusy);
}

TEST(SeccompProfile, OfTheRulesWithConditionsTheFirstThatMatchesTakesEffect)
{
    const SeccompCode code =
        compiled(Profile()
                     .rule({"getpid", "getppid"}, error(EBUSY), {{0, kEq, 1, 0}})
                     .rule({"getppid"}, error(EPERM), {{0, SeccompCompare::kLt, 9, 0}})
                     .rule({"getppid"}, error(ENOENT), {{0, kEq, 1, 0}}));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_getppid, {1}), kBusy);
    EXPECT_EQ(machine(SYS_getppid, {8}), error_answer(EPERM));
    EXPECT_EQ(machine(SYS_getppid, {9}), kAllowed);
    EXPECT_EQ(machine(SYS_getpid, {1}), kBusy);
    EXPECT_EQ(machine(SYS_getpid, {8}), kAllowed);
}

// Rules that libseccomp merges incorrectly, or for which it does not terminate.
TEST(SeccompProfile, RulesWithConditionsOnDifferentArgumentsStaySeparate)
{
    const SeccompCode code = compiled(
        Profile(error(EPERM))
            .rule({"getppid"}, kAllow, {{0, SeccompCompare::kNe, 0x100000000, 0}})
            .rule({"getppid"}, kAllow, {{0, SeccompCompare::kNe, 0x100000001, 0}, {1, kEq, 0, 0}}));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {0x100000000, 1}), error_answer(EPERM));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {0x100000000, 0}), kAllowed);
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {0x100000001, 1}), kAllowed);
}

TEST(SeccompProfile, NamesThatTheLibraryDoesNotKnowAreSkipped)
{
    const SeccompCode code = compiled(Profile(error(EPERM))
                                          .rule({"no_such_call", "getppid", ""}, kAllow)
                                          .rule({"neither_this"}, error(EBUSY), {{1, kEq, 0, 0}}));
    for (unsigned number = 0; number < 600; number++)
        EXPECT_EQ(FilterMachine(code)(number),
                  number == kNativeGetppid ? kAllowed : error_answer(EPERM))
            << number;
}

// The values of rules with the same answer, combined at random, against their meaning.
TEST(SeccompProfile, RandomRulesHaveTheirSpecifiedEffect)
{
    constexpr std::uint64_t kValues[] = {0, 1, 2, 0xffffffff, 0x100000000, 0x100000001, ~0ULL};
    std::mt19937 random(7); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time
    const auto pick = [&](std::size_t below) { return static_cast<unsigned>(random() % below); };
    for (int round = 0; round < 300; round++) {
        Profile profile;
        std::vector<std::vector<SeccompArg>> rules(1 + pick(4));
        for (std::vector<SeccompArg>& rule : rules) {
            const unsigned first = pick(4);
            for (unsigned i = 0; i <= pick(3); i++) {
                const auto compare = static_cast<SeccompCompare>(pick(7));
                SeccompArg arg = {first + i, compare, kValues[pick(std::size(kValues))], 0};
                if (compare == SeccompCompare::kMaskedEq)
                    arg.valueTwo = arg.value & kValues[pick(std::size(kValues))];
                if (arg.index < 6)
                    rule.push_back(arg);
            }
            profile.rule({"getppid"}, error(EBUSY), rule);
        }
        const SeccompCode code = compiled(profile);
        const FilterMachine machine(code);
        for (int tries = 0; tries < 100; tries++) {
            CallArgs args = {};
            for (std::uint64_t& value : args)
                value = kValues[pick(std::size(kValues))];
            const bool refused = std::any_of(rules.begin(), rules.end(), [&](const auto& rule) {
                return std::all_of(rule.begin(), rule.end(),
                                   [&](const SeccompArg& arg) { return holds(arg, args); });
            });
            ASSERT_EQ(machine(SYS_getppid, args), refused ? kBusy : kAllowed) << "round " << round;
        }
    }
}

// ---------------------------------------------------------------- architectures

TEST(SeccompProfile, TheNativeArchitectureNeedsNoName)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, error(EBUSY)));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid), kBusy);
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {}, AUDIT_ARCH_ARM), SECCOMP_RET_KILL_PROCESS);
}

TEST(SeccompProfile, AnUnknownArchitectureIsRefused)
{
    for (const char* name : {"SCMP_ARCH_NONE", "SCMP_ARCH_", "x86_64", "SCMP_ARCH_arm", "ARM", "",
                             "SCMP_ARCH_AARCH64AARCH64AARCH64AARCH64AARCH64", "scmp_arch_arm"})
        EXPECT_EQ(refusal(Profile().architecture("SCMP_ARCH_ARM").architecture(name)),
                  "EINVAL: linux.seccomp.architectures[1]: not the name of an architecture")
            << name;
}

TEST(SeccompProfile, AnArchitectureOfAnotherByteOrderIsRefused)
{
    EXPECT_EQ(refusal(Profile().architecture("SCMP_ARCH_S390X")),
              "EINVAL: linux.seccomp.architectures[0]: cannot be combined with the machine's "
              "architecture");
}

#ifdef __x86_64__
TEST(SeccompProfile, ConditionsThatAFilterCannotSeeLeadToTheStrictestAnswer)
{
    constexpr std::uint32_t kI386SocketCall = 102;
    const Profile allowing = std::move(Profile(error(EPERM))
                                           .architecture("SCMP_ARCH_X86")
                                           .rule({"socket"}, kAllow, {{0, kEq, 1, 0}}));
    const SeccompCode some = compiled(allowing);
    EXPECT_EQ(FilterMachine(some)(SYS_socket, {1}), kAllowed);
    EXPECT_EQ(FilterMachine(some)(SYS_socket, {2}), error_answer(EPERM));
    EXPECT_EQ(FilterMachine(some)(kI386SocketCall, {1}, AUDIT_ARCH_I386), error_answer(EPERM));
    const Profile refusing = std::move(
        Profile().architecture("SCMP_ARCH_X86").rule({"socket"}, error(EBUSY), {{0, kEq, 1, 0}}));
    const SeccompCode others = compiled(refusing);
    EXPECT_EQ(FilterMachine(others)(SYS_socket, {1}), kBusy);
    EXPECT_EQ(FilterMachine(others)(SYS_socket, {2}), kAllowed);
    EXPECT_EQ(FilterMachine(others)(kI386SocketCall, {1}, AUDIT_ARCH_I386), kBusy);
    EXPECT_EQ(FilterMachine(others)(kI386SocketCall, {2}, AUDIT_ARCH_I386), kAllowed);
}

TEST(SeccompProfile, NamedArchitecturesAreAddedToTheNativeOne)
{
    for (const bool native : {false, true}) {
        Profile profile;
        profile.rule({"getppid"}, error(EBUSY), {{1, kEq, 5, 0}});
        if (native)
            profile.architecture("SCMP_ARCH_X86_64");
        profile.architecture("SCMP_ARCH_X86").architecture("SCMP_ARCH_X32");
        const SeccompCode code = compiled(profile);
        const FilterMachine machine(code);
        EXPECT_EQ(machine(kNativeGetppid, {0, 5}), kBusy);
        EXPECT_EQ(machine(kNativeGetppid, {0, 6}), kAllowed);
        EXPECT_EQ(machine(kX32 + kNativeGetppid, {0, 5}), kBusy);
        EXPECT_EQ(machine(kX32 + kNativeGetppid, {0, 6}), kAllowed);
        EXPECT_EQ(machine(kI386Getppid, {0, 5}, AUDIT_ARCH_I386), kBusy);
        EXPECT_EQ(machine(kI386Getppid, {0, 6}, AUDIT_ARCH_I386), kAllowed);
        EXPECT_EQ(machine(kNativeGetppid, {0, 5}, AUDIT_ARCH_I386), kAllowed); // another call
        EXPECT_EQ(machine(kNativeGetppid, {0, 6}, AUDIT_ARCH_AARCH64), SECCOMP_RET_KILL_PROCESS);
    }
}

TEST(SeccompProfile, CallsThatOnlyAForeignArchitectureHasAreFilteredThere)
{
    constexpr std::uint32_t kI386Waitpid = 7;
    constexpr std::uint32_t kI386SocketCall = 102;
    const SeccompCode code = compiled(Profile(error(EPERM))
                                          .architecture("SCMP_ARCH_X86")
                                          .rule({"socketcall"}, kAllow)
                                          .rule({"waitpid"}, kAllow, {{2, kEq, 0, 0}}));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(kI386SocketCall, {}, AUDIT_ARCH_I386), kAllowed);
    EXPECT_EQ(machine(kI386Waitpid, {}, AUDIT_ARCH_I386), kAllowed);
    EXPECT_EQ(machine(kI386Waitpid, {0, 0, 1}, AUDIT_ARCH_I386), error_answer(EPERM));
    EXPECT_EQ(machine(kI386SocketCall), error_answer(EPERM));
    EXPECT_EQ(machine(kI386Waitpid), error_answer(EPERM));
}

TEST(SeccompProfile, WithoutItsNameX32EndsTheProcess)
{
    const SeccompCode code = compiled(Profile().architecture("SCMP_ARCH_X86"));
    EXPECT_EQ(FilterMachine(code)(kX32 + kNativeGetppid), SECCOMP_RET_KILL_PROCESS);
    EXPECT_TRUE(
        ended_by(status_under(code, [] { return static_cast<int>(::syscall(kX32 + SYS_getppid)); }),
                 SIGSYS));
}

TEST(SeccompProfile, TheKernelFiltersANamedForeignArchitecture)
{
    if (!foreign_calls_possible())
        GTEST_SKIP() << "this kernel has no 32-bit calls";
    const auto call = [] {
        long result = kI386Getppid;
        __asm__ volatile("int $0x80" : "+a"(result) : "b"(0L) : "memory");
        return static_cast<int>(-result);
    };
    Profile profile;
    profile.rule({"getppid"}, error(EBUSY));
    EXPECT_TRUE(ended_by(status_under(compiled(profile), call), SIGSYS));
    profile.architecture("SCMP_ARCH_X86");
    EXPECT_TRUE(exited(status_under(compiled(profile), call), EBUSY));
}
#endif

// ---------------------------------------------------------------- flags

TEST(SeccompProfile, FlagsAreTheKernels)
{
    EXPECT_EQ(compiled(Profile()).flags, SECCOMP_FILTER_FLAG_SPEC_ALLOW);
    EXPECT_EQ(compiled(Profile().flag("SECCOMP_FILTER_FLAG_LOG")).flags, SECCOMP_FILTER_FLAG_LOG);
    const SeccompCode all = compiled(Profile()
                                         .rule({"getppid"}, error(EBUSY))
                                         .flag("SECCOMP_FILTER_FLAG_TSYNC")
                                         .flag("SECCOMP_FILTER_FLAG_LOG")
                                         .flag("SECCOMP_FILTER_FLAG_SPEC_ALLOW"));
    EXPECT_EQ(all.flags,
              SECCOMP_FILTER_FLAG_TSYNC | SECCOMP_FILTER_FLAG_LOG | SECCOMP_FILTER_FLAG_SPEC_ALLOW);
    EXPECT_TRUE(
        exited(status_under(all, [] { return ::syscall(SYS_getppid) == -1 ? errno : 0; }), EBUSY));
}

TEST(SeccompProfile, UnsupportedFlagsAreRefused)
{
    EXPECT_EQ(refusal(Profile()
                          .flag("SECCOMP_FILTER_FLAG_LOG")
                          .flag("SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV")),
              "EOPNOTSUPP: linux.seccomp.flags[1]: needs a rule with SCMP_ACT_NOTIFY");
    for (const char* name : {"SECCOMP_FILTER_FLAG_NEW_LISTENER", "LOG", "", "seccomp"})
        EXPECT_EQ(refusal(Profile().flag(name)),
                  "EINVAL: linux.seccomp.flags[0]: not the name of a flag")
            << name;
}

// ---------------------------------------------------------------- listeners

namespace {

constexpr SeccompAnswer kNotify = {SeccompAction::kNotify, 0};

Profile notifying(const std::vector<std::string>& names, const char* path = "/agent")
{
    Profile profile;
    profile.listenerPath = znc::copy_text(path);
    profile.rule(names, kNotify);
    return profile;
}

std::string refusal_without_listener(const SeccompProfile& profile)
{
    zn::SettingsFault fault;
    const int result = zn::seccomp_refuse_listener(profile, fault);
    return std::string(::strerrorname_np(result)) + ": " + fault.field + ": " + fault.reason;
}

} // namespace

TEST(SeccompListener, TheKernelGivesAListener)
{
    const SeccompCode code = compiled(notifying({"getppid"}));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid), SECCOMP_RET_USER_NOTIF);
    EXPECT_EQ(FilterMachine(code)(SYS_getpid), kAllowed);
    EXPECT_NE(code.flags & SECCOMP_FILTER_FLAG_NEW_LISTENER, 0U);
    EXPECT_EQ(compiled(Profile().rule({"getppid"}, error(EBUSY))).flags &
                  SECCOMP_FILTER_FLAG_NEW_LISTENER,
              0U);
}

TEST(SeccompListener, ARuleWithConditionsNotifies)
{
    Profile profile;
    profile.listenerPath = znc::copy_text("/agent");
    const SeccompCode code = compiled(profile.rule({"getppid"}, kNotify, {{0, kEq, 7, 0}}));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {7}), SECCOMP_RET_USER_NOTIF);
    EXPECT_EQ(FilterMachine(code)(SYS_getppid, {8}), kAllowed);
    EXPECT_NE(code.flags & SECCOMP_FILTER_FLAG_NEW_LISTENER, 0U);
}

TEST(SeccompListener, OtherThreadsAreNotSynchronised)
{
    Profile profile = notifying({"getppid"});
    profile.flag("SECCOMP_FILTER_FLAG_TSYNC").flag("SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV");
    EXPECT_EQ(compiled(profile).flags,
              static_cast<unsigned>(SECCOMP_FILTER_FLAG_NEW_LISTENER |
                                    SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV));
}

TEST(SeccompListener, WhatCannotWorkIsRefused)
{
    EXPECT_EQ(refusal(Profile(kNotify)),
              "EINVAL: linux.seccomp.defaultAction: SCMP_ACT_NOTIFY cannot be the default action");
    EXPECT_EQ(refusal(notifying({"read", "write"})),
              "EINVAL: linux.seccomp.syscalls[0].action: SCMP_ACT_NOTIFY cannot be used for the "
              "write syscall");
    EXPECT_EQ(refusal(notifying({"getppid"}, "")),
              "EINVAL: linux.seccomp.listenerPath: SCMP_ACT_NOTIFY needs it");
    EXPECT_EQ(refusal(notifying({"getppid"}, "agent")),
              "EINVAL: linux.seccomp.listenerPath: not an absolute path");
    Profile lonely;
    lonely.hasMetadata = true;
    EXPECT_EQ(refusal(lonely), "EINVAL: linux.seccomp.listenerMetadata: needs listenerPath");
}

TEST(SeccompListener, WithoutARuleThePathIsIgnored)
{
    Profile profile;
    profile.listenerPath = znc::copy_text("agent");
    EXPECT_EQ(compiled(profile).flags & SECCOMP_FILTER_FLAG_NEW_LISTENER, 0U);
}

TEST(SeccompListener, CanBeRefusedAltogether)
{
    EXPECT_EQ(refusal_without_listener(Profile(kNotify)),
              "EOPNOTSUPP: linux.seccomp.defaultAction: SCMP_ACT_NOTIFY is not supported");
    EXPECT_EQ(refusal_without_listener(notifying({"getppid"})),
              "EOPNOTSUPP: linux.seccomp.listenerPath: is not supported");
    EXPECT_EQ(refusal_without_listener(Profile().rule({"read"}, kAllow).rule({"getppid"}, kNotify)),
              "EOPNOTSUPP: linux.seccomp.syscalls[1].action: SCMP_ACT_NOTIFY is not supported");
    Profile lonely;
    lonely.hasMetadata = true;
    EXPECT_EQ(refusal_without_listener(lonely),
              "EOPNOTSUPP: linux.seccomp.listenerMetadata: is not supported");
    EXPECT_EQ(refusal_without_listener(Profile().rule({"read"}, error(EBUSY))), "0: : ");
}

// ---------------------------------------------------------------- newer calls

namespace {

constexpr std::uint32_t kUnknownCall = 1000; // of no kernel yet

Profile with_newer_absent(SeccompAnswer otherwise)
{
    Profile profile(otherwise);
    profile.newerAreAbsent = true;
    profile.rule({"read", "openat2"}, kAllow);
    return profile;
}

} // namespace

TEST(SeccompNewerCalls, AreAbsentIfTheProfileSaysSo)
{
    const SeccompCode code = compiled(with_newer_absent(error(EPERM)));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_openat2), kAllowed);
    EXPECT_EQ(machine(SYS_openat2 + 1), error_answer(ENOSYS));
    EXPECT_EQ(machine(kUnknownCall), error_answer(ENOSYS));
    EXPECT_EQ(machine(SYS_getppid), error_answer(EPERM));
    EXPECT_EQ(machine(SYS_clone3), error_answer(EPERM)); // older than openat2
    EXPECT_EQ(machine(0xffffffff), error_answer(EPERM) /* no call */);
}

TEST(SeccompNewerCalls, AreAnsweredAsWrittenOtherwise)
{
    for (const SeccompAnswer answer :
         {error(EACCES), error(ENOSYS), SeccompAnswer{SeccompAction::kKillProcess, 0},
          SeccompAnswer{SeccompAction::kLog, 0}, kAllow})
        EXPECT_EQ(FilterMachine(compiled(with_newer_absent(answer)))(kUnknownCall),
                  zn::seccomp_answer(answer));
    Profile plain(error(EPERM));
    EXPECT_EQ(FilterMachine(compiled(plain.rule({"read"}, kAllow)))(kUnknownCall),
              error_answer(EPERM));
}

TEST(SeccompNewerCalls, ANamedCallIsNotNewerWhateverItsAnswer)
{
    Profile profile = with_newer_absent(error(EPERM));
    profile.rule({"faccessat2"}, error(EPERM)).rule({"nosuchcall"}, kAllow);
    const SeccompCode code = compiled(profile);
    EXPECT_EQ(FilterMachine(code)(SYS_faccessat2), error_answer(EPERM));
    EXPECT_EQ(FilterMachine(code)(SYS_faccessat2 + 1), error_answer(ENOSYS));
}

#ifdef __x86_64__
TEST(SeccompNewerCalls, EachArchitectureHasItsOwnNumbers)
{
    Profile profile = with_newer_absent(error(EPERM));
    profile.architecture("SCMP_ARCH_X86");
    const SeccompCode code = compiled(profile);
    const FilterMachine machine(code);
    EXPECT_EQ(machine(kUnknownCall, {}, AUDIT_ARCH_I386), error_answer(ENOSYS));
    EXPECT_EQ(machine(kI386Getppid, {}, AUDIT_ARCH_I386), error_answer(EPERM));
    EXPECT_EQ(machine(kX32 + kUnknownCall), SECCOMP_RET_KILL_PROCESS);
    Profile x32 = with_newer_absent(error(EPERM));
    x32.architecture("SCMP_ARCH_X32");
    const SeccompCode both = compiled(x32);
    EXPECT_EQ(FilterMachine(both)(kX32 + kUnknownCall), error_answer(ENOSYS));
    EXPECT_EQ(FilterMachine(both)(kX32 + SYS_getppid), error_answer(EPERM));
}
#endif

// ---------------------------------------------------------------- limits

TEST(SeccompProfile, AnArgumentThatDoesNotExistIsRefused)
{
    EXPECT_EQ(refusal(Profile()
                          .rule({"read"}, error(1))
                          .rule({"no_such_call"}, error(1), {{5, kEq, 0, 0}, {6, kEq, 0, 0}})),
              "EINVAL: linux.seccomp.syscalls[1].args[1].index: not a number from 0 to 5");
}

namespace {

// A profile with that many values of one argument.
Profile with_values(unsigned count)
{
    Profile profile;
    for (unsigned i = 0; i < count; i++)
        profile.rule({"getppid"}, error(EBUSY), {{0, kEq, std::uint64_t{i} << 32 | i, 0}});
    return profile;
}

} // namespace

TEST(SeccompProfile, ALongFilterThatTheKernelTakesWorks)
{
    const SeccompCode code = compiled(with_values(700));
    EXPECT_GT(code.code.size(), 1000U);
    EXPECT_TRUE(exited(status_under(code,
                                    [] {
                                        return ::syscall(SYS_getppid, 699UL << 32 | 699) == -1 &&
                                                       ::syscall(SYS_getppid, 700UL << 32 | 700) >
                                                           -1
                                                   ? 3
                                                   : 4;
                                    }),
                       3));
}

TEST(SeccompProfile, AFilterThatIsTooLongForTheKernelIsRefused)
{
    EXPECT_EQ(refusal(with_values(2100)), "EINVAL: linux.seccomp: the filter is longer than the "
                                          "4096 instructions of the kernel");
}

TEST(SeccompProfile, TheSameProfileMakesTheSameFilterAndKeepsNothing)
{
    Profile profile(error(EPERM));
    profile.rule({"read", "write", "socket"}, kAllow).rule({"clone"}, kAllow, {{0, kEq, 1, 0}});
    const SeccompCode first = compiled(profile);
    const auto before = open_descriptors();
    compiled(Profile(error(3)).architecture("SCMP_ARCH_ARM"));
    refusal(Profile().architecture("SCMP_ARCH_"));
    const SeccompCode second = compiled(profile);
    EXPECT_EQ(open_descriptors(), before);
    ASSERT_EQ(first.code.size(), second.code.size());
    EXPECT_EQ(std::memcmp(first.code.begin(), second.code.begin(),
                          first.code.size() * sizeof(sock_filter)),
              0);
}

TEST(SeccompProfile, ALackOfMemoryIsReportedAndLeavesNothing)
{
    Profile profile(error(EPERM));
    profile.rule({"read", "write"}, kAllow).rule({"getppid"}, kAllow, {{0, kEq, 1, 0}});
    const auto before = open_descriptors();
    unsigned failed = 0;
    for (unsigned n = 1;; n++) {
        SeccompCode code;
        zn::SettingsFault fault;
        alloc_fault::arm(n);
        const int result = zn::seccomp_compile(profile, code, fault);
        const unsigned asked = alloc_fault::disarm();
        if (asked < n) {
            EXPECT_EQ(result, 0);
            break;
        }
        failed++;
        EXPECT_EQ(result, ENOMEM) << n;
        EXPECT_STREQ(fault.reason, "not enough memory") << n;
        EXPECT_EQ(code.code.size(), 0U) << n;
    }
    EXPECT_GT(failed, 3U);
    EXPECT_EQ(open_descriptors(), before);
}
