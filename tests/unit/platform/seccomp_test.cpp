// Tests of filters compiled from a configuration: what they answer in an interpreter and in the
// kernel, and which profiles are refused.
#include "settings/seccomp.hpp"

#include "seccomp_code.hpp"
#include "seccomp_profile.hpp"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/ptrace.h>
#include <thread>

namespace {

constexpr int kFromFilter = 1; // SYS_SECCOMP, which the C library does not define

// A call that has no arguments: the kernel ignores what is passed, only the filter sees it.
long plain_call(const CallArgs& a = {})
{
    return ::syscall(SYS_getppid, a[0], a[1], a[2], a[3], a[4], a[5]);
}

int error_of_plain_call()
{
    errno = 0;
    return plain_call() >= 0 ? 0 : errno;
}

void on_trap(int, siginfo_t* info, void*)
{
    ::_exit(info->si_code == kFromFilter && info->si_syscall == SYS_getppid ? 7 : 8);
}

} // namespace

// ---------------------------------------------------------------- answers

TEST(SeccompCompile, EachActionIsTheKernels)
{
    const struct {
        SeccompAnswer answer;
        std::uint32_t value;
    } all[] = {
        {{SeccompAction::kKillProcess, 0}, SECCOMP_RET_KILL_PROCESS},
        {{SeccompAction::kKillThread, 0}, SECCOMP_RET_KILL_THREAD},
        {{SeccompAction::kTrap, 0}, SECCOMP_RET_TRAP},
        {error(0), SECCOMP_RET_ERRNO},
        {error(EBUSY), error_answer(EBUSY)},
        {error(4094), error_answer(4094)},
        {{SeccompAction::kTrace, 0}, SECCOMP_RET_TRACE},
        {{SeccompAction::kTrace, 0xffff}, SECCOMP_RET_TRACE | 0xffff},
        {{SeccompAction::kLog, 0}, SECCOMP_RET_LOG},
    };
    for (const auto& one : all) {
        SCOPED_TRACE(one.value);
        const SeccompCode as_rule = compiled(Profile().rule({"getppid"}, one.answer));
        EXPECT_EQ(FilterMachine(as_rule)(SYS_getppid), one.value);
        EXPECT_EQ(FilterMachine(as_rule)(SYS_getpid), SECCOMP_RET_ALLOW);
        const SeccompCode otherwise = compiled(Profile(one.answer).rule({"getppid"}, kAllow));
        EXPECT_EQ(FilterMachine(otherwise)(SYS_getppid), SECCOMP_RET_ALLOW);
        EXPECT_EQ(FilterMachine(otherwise)(SYS_getpid), one.value);
    }
}

TEST(SeccompCompile, ErrorNumbersReachTheProgram)
{
    for (const int number : {0, 1, EBUSY, ENOSYS, 4094}) {
        const SeccompCode code =
            compiled(Profile().rule({"getppid"}, error(static_cast<std::uint32_t>(number))));
        const int status = status_under(code, [&] {
            const int got = error_of_plain_call();
            return got == number ? 0 : 1;
        });
        EXPECT_TRUE(exited(status, 0)) << number << " " << status;
    }
}

TEST(SeccompCompile, KillProcessEndsAllThreads)
{
    const SeccompCode code =
        compiled(Profile().rule({"getppid"}, {SeccompAction::kKillProcess, 0}));
    EXPECT_TRUE(ended_by(status_under(code,
                                      [] {
                                          std::thread([] { plain_call(); }).join();
                                          return 0;
                                      }),
                         SIGSYS));
}

TEST(SeccompCompile, KillThreadEndsOneThread)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, {SeccompAction::kKillThread, 0}));
    EXPECT_TRUE(exited(status_under(code,
                                    [] {
                                        std::atomic<pid_t> id = 0;
                                        std::atomic<bool> survived = false;
                                        std::thread([&] {
                                            id = ::gettid();
                                            plain_call();
                                            survived = true;
                                        }).detach(); // joining needs its own last steps
                                        while (id == 0 || ::tgkill(::getpid(), id, 0) == 0)
                                            ::sched_yield();
                                        return survived ? 1 : 5;
                                    }),
                       5));
}

TEST(SeccompCompile, TrapSendsASignal)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, {SeccompAction::kTrap, 0}));
    EXPECT_TRUE(exited(status_under(code,
                                    [] {
                                        struct sigaction action = {};
                                        action.sa_sigaction = on_trap;
                                        action.sa_flags = SA_SIGINFO;
                                        ::sigaction(SIGSYS, &action, nullptr);
                                        plain_call();
                                        return 1;
                                    }),
                       7));
}

TEST(SeccompCompile, LogAllows)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, {SeccompAction::kLog, 0}));
    ASSERT_EQ(FilterMachine(code)(SYS_getppid), SECCOMP_RET_LOG);
    EXPECT_TRUE(exited(status_under(code, error_of_plain_call), 0));
}

TEST(SeccompCompile, TraceWithoutATracerFails)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, {SeccompAction::kTrace, 77}));
    EXPECT_TRUE(exited(status_under(code, error_of_plain_call), ENOSYS));
}

TEST(SeccompCompile, TraceGivesTheTracerTheNumber)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, {SeccompAction::kTrace, 0xabcd}));
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (!install_filter(code) || ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            ::_exit(kNotInstalled);
        ::raise(SIGSTOP);
        plain_call();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    const long options = PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
    ASSERT_EQ(::ptrace(PTRACE_SETOPTIONS, pid, nullptr, options), 0);
    ASSERT_EQ(::ptrace(PTRACE_CONT, pid, nullptr, nullptr), 0);
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status >> 8, SIGTRAP | PTRACE_EVENT_SECCOMP << 8);
    unsigned long number = 0;
    EXPECT_EQ(::ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &number), 0);
    EXPECT_EQ(number, 0xabcdUL);
    ::kill(pid, SIGKILL);
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
}

TEST(SeccompCompile, NumbersOutOfRangeAreRefused)
{
    EXPECT_EQ(refusal(Profile(error(4095))),
              "EINVAL: linux.seccomp.defaultErrnoRet: not a number from 0 to 4094 "
              "(SCMP_ACT_TRACE: to 65535)");
    EXPECT_EQ(refusal(Profile().rule({"read"}, kAllow).rule({"read"}, error(70000))),
              "EINVAL: linux.seccomp.syscalls[1].errnoRet: not a number from 0 to 4094 "
              "(SCMP_ACT_TRACE: to 65535)");
    EXPECT_EQ(refusal(Profile({SeccompAction::kTrace, 0x10000})),
              "EINVAL: linux.seccomp.defaultErrnoRet: not a number from 0 to 4094 "
              "(SCMP_ACT_TRACE: to 65535)");
}

TEST(SeccompCompile, ARuleWithTheDefaultAnswerHasNoEffect)
{
    const SeccompCode code =
        compiled(Profile(error(EPERM)).rule({"getppid"}, error(EPERM)).rule({"getppid"}, kAllow));
    EXPECT_EQ(FilterMachine(code)(SYS_getppid), SECCOMP_RET_ALLOW);
    EXPECT_EQ(FilterMachine(code)(SYS_getpid), error_answer(EPERM));
}

// ---------------------------------------------------------------- conditions

namespace {

// Differ in one half, in both, at the limits of signed and unsigned numbers.
constexpr std::uint64_t kValues[] = {0,
                                     1,
                                     0x7fffffff,
                                     0x80000000,
                                     0xffffffff,
                                     0x100000000,
                                     0x100000001,
                                     0x5aaaaaaaa,
                                     0xffffffff00000000,
                                     0x7fffffffffffffff,
                                     0x8000000000000000,
                                     0xffffffffffffffff};

constexpr SeccompCompare kComparisons[] = {SeccompCompare::kNe, SeccompCompare::kLt,
                                           SeccompCompare::kLe, SeccompCompare::kEq,
                                           SeccompCompare::kGe, SeccompCompare::kGt};

// Compares one condition with its meaning, for all values of its argument.
void check_condition(const SeccompArg& arg)
{
    const SeccompCode code = compiled(Profile().rule({"getppid"}, error(EBUSY), {arg}));
    const FilterMachine machine(code);
    bool refused[std::size(kValues)] = {};
    for (std::size_t i = 0; i < std::size(kValues); i++) {
        CallArgs args = {11, 12, 13, 14, 15, 16};
        args[arg.index] = kValues[i];
        refused[i] = holds(arg, args);
        EXPECT_EQ(machine(SYS_getppid, args), refused[i] ? error_answer(EBUSY) : SECCOMP_RET_ALLOW)
            << std::hex << kValues[i];
    }
    const int status = status_under(code, [&] {
        for (std::size_t i = 0; i < std::size(kValues); i++) {
            CallArgs args = {11, 12, 13, 14, 15, 16};
            args[arg.index] = kValues[i];
            if ((plain_call(args) < 0) != refused[i])
                return static_cast<int>(i) + 1;
        }
        return 0;
    });
    EXPECT_TRUE(exited(status, 0)) << status;
}

} // namespace

TEST(SeccompCompile, ComparisonsUseAll64BitsOfEachArgument)
{
    unsigned index = 0;
    for (const SeccompCompare compare : kComparisons)
        for (const std::uint64_t value : kValues) {
            SCOPED_TRACE(std::to_string(static_cast<unsigned>(compare)) + " " +
                         std::to_string(value));
            check_condition({index++ % 6, compare, value, 0});
        }
}

TEST(SeccompCompile, MaskedComparisonsUseAll64BitsOfEachArgument)
{
    unsigned index = 0;
    for (const std::uint64_t mask : kValues)
        for (const std::uint64_t value : kValues) {
            SCOPED_TRACE(std::to_string(mask) + " " + std::to_string(value));
            check_condition({index++ % 6, SeccompCompare::kMaskedEq, mask, value});
        }
}
