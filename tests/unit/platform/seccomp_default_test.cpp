// Tests of the filter of containers whose configuration has none: its answer to every call, in an
// interpreter and in the kernel, and that ordinary programs run with it.
#include "settings/seccomp.hpp"

#include "seccomp_calls_table.hpp"
#include "seccomp_code.hpp"

#include <algorithm>
#include <bitset>
#include <csignal>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <linux/personality.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

using zn::SeccompCode;

constexpr std::uint32_t kAllow = SECCOMP_RET_ALLOW;
const std::uint32_t kRefuse = error_answer(EPERM);
const std::uint32_t kAbsent = error_answer(ENOSYS);
constexpr unsigned kNumbers = 601;

constexpr std::uint64_t bit(unsigned capability)
{
    return std::uint64_t{1} << capability;
}
// The capabilities that containers have by default.
constexpr std::uint64_t kDefaults = bit(CAP_CHOWN) | bit(CAP_DAC_OVERRIDE) | bit(CAP_FOWNER) |
                                    bit(CAP_FSETID) | bit(CAP_KILL) | bit(CAP_SETGID) |
                                    bit(CAP_SETUID) | bit(CAP_SETPCAP) | bit(CAP_NET_BIND_SERVICE) |
                                    bit(CAP_SYS_CHROOT) | bit(CAP_SETFCAP);

SeccompCode default_filter(std::uint64_t capabilities = kDefaults)
{
    SeccompCode code;
    EXPECT_EQ(zn::seccomp_default(capabilities, code), 0);
    EXPECT_LE(code.code.size(), std::size_t{BPF_MAXINSNS});
    EXPECT_EQ(code.flags, SECCOMP_FILTER_FLAG_SPEC_ALLOW);
    return code;
}

// Decided by number: newer than the headers.
constexpr unsigned kNewerAllowed[] = {
#ifdef __x86_64__
    335, // uretprobe
#endif
    451, 452, 454, 455, 456}; // cachestat, fchmodat2, futex_wake, futex_wait, futex_requeue
constexpr unsigned kOpenTreeAttr = 467;
constexpr unsigned kUprobe = 336;

// Their answers depend on arguments; without any, they are allowed.
constexpr unsigned kByArgument[] = {SYS_clone, SYS_unshare, SYS_personality};

// The answer to each number with all arguments 0.
std::vector<std::uint32_t> expected_answers(std::uint64_t capabilities)
{
    std::vector<std::uint32_t> answers(kNumbers, kAbsent);
    for (const unsigned number : kNever)
        answers[number] = kRefuse;
    for (const Conditional& one : kConditional)
        answers[one.number] =
            std::any_of(one.capabilities.begin(), one.capabilities.end(),
                        [&](unsigned needed) { return (capabilities & bit(needed)) != 0; })
                ? kAllow
                : kRefuse;
    for (const unsigned number : kOrdinary)
        answers[number] = kAllow;
    for (const unsigned number : kNewerAllowed)
        answers[number] = kAllow;
    for (const unsigned number : kByArgument)
        answers[number] = kAllow;
    answers[kOpenTreeAttr] = kRefuse;
    return answers;
}

// Runs a program with the default filter. Its exit status, or -1.
int run_program(std::vector<const char*> argv)
{
    argv.push_back(nullptr);
    const int status = status_under(default_filter(), [&] {
        ::execv(argv[0], const_cast<char* const*>(argv.data()));
        return 127;
    });
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

// ---------------------------------------------------------------- numbers

TEST(SeccompDefault, AnswersEveryNumberAsListed)
{
    EXPECT_GT(std::size(kOrdinary), 240U);
    for (const std::uint64_t capabilities : {std::uint64_t{0}, kDefaults, ~std::uint64_t{0}}) {
        const SeccompCode code = default_filter(capabilities);
        const std::vector<std::uint32_t> expected = expected_answers(capabilities);
        for (unsigned number = 0; number < kNumbers; number++)
            EXPECT_EQ(FilterMachine(code)(number), expected[number]) << number;
    }
}

TEST(SeccompDefault, RefusesWithoutTheCapabilityAndAllowsWithIt)
{
    for (unsigned capability = 0; capability <= CAP_LAST_CAP; capability++) {
        const SeccompCode with = default_filter(bit(capability));
        const SeccompCode without = default_filter(~bit(capability));
        for (const Conditional& one : kConditional) {
            const auto count =
                std::count(one.capabilities.begin(), one.capabilities.end(), capability);
            EXPECT_EQ(FilterMachine(with)(one.number), count != 0 ? kAllow : kRefuse)
                << one.number << " " << capability;
            EXPECT_EQ(FilterMachine(without)(one.number),
                      count != 0 && one.capabilities.size() == 1 ? kRefuse : kAllow)
                << one.number << " " << capability;
        }
    }
}

TEST(SeccompDefault, X32NumbersDoNotExist)
{
    for (const std::uint64_t capabilities : {kDefaults, ~std::uint64_t{0}}) {
        const SeccompCode code = default_filter(capabilities);
        for (std::uint32_t number = 0; number < kNumbers; number++)
            EXPECT_EQ(FilterMachine(code)(kX32 + number), kAbsent) << number;
        for (const std::uint32_t number : {600U, 0x3fffffffU, 0x7fffffffU, 0x80000000U, ~0U})
            EXPECT_EQ(FilterMachine(code)(number), kAbsent) << number;
    }
}

TEST(SeccompDefault, OtherArchitecturesEndTheProcess)
{
    const SeccompCode code = default_filter(~std::uint64_t{0});
    for (const std::uint32_t arch :
         {static_cast<std::uint32_t>(AUDIT_ARCH_I386), static_cast<std::uint32_t>(AUDIT_ARCH_ARM),
          static_cast<std::uint32_t>(AUDIT_ARCH_S390X), 0U, ~0U})
        for (unsigned number = 0; number < kNumbers; number++)
            ASSERT_EQ(FilterMachine(code)(number, {}, arch), SECCOMP_RET_KILL_PROCESS) << number;
}

// The kernel gives the answers of the interpreter. Numbers that are allowed are not called.
// Kernels that have call 336 (uprobe) on x86-64 make it without asking the filter.
TEST(SeccompDefault, KernelAndTestInterpreterAgree)
{
    const SeccompCode code = default_filter();
    const std::vector<std::uint32_t> expected = expected_answers(kDefaults);
    const int status = status_under(code, [&] {
        for (unsigned number = 0; number < kNumbers; number++) {
            if (expected[number] != kAllow && number != kUprobe) {
                errno = 0;
                if (::syscall(static_cast<long>(number), -1L, -1L, -1L, -1L, -1L, -1L) != -1 ||
                    error_answer(errno) != expected[number])
                    return 1;
            }
            errno = 0;
            if (::syscall(static_cast<long>(kX32 + number), -1L, -1L, -1L, -1L, -1L, -1L) != -1 ||
                errno != ENOSYS)
                return 2;
        }
        return 0;
    });
    EXPECT_TRUE(exited(status, 0)) << status;
}

#ifdef __x86_64__
TEST(SeccompDefault, A32BitCallEndsTheProcess)
{
    if (!foreign_calls_possible())
        GTEST_SKIP() << "this kernel has no 32-bit calls";
    EXPECT_TRUE(ended_by(status_under(default_filter(),
                                      [] {
                                          long result = 20; // getpid
                                          __asm__ volatile("int $0x80" : "+a"(result) : : "memory");
                                          return 0;
                                      }),
                         SIGSYS));
}
#endif

// ---------------------------------------------------------------- arguments

TEST(SeccompDefault, CloneCreatesNoNamespaces)
{
    const SeccompCode code = default_filter();
    const FilterMachine machine(code);
    constexpr unsigned kRefused = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC |
                                  CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET | CLONE_PARENT;
    for (unsigned i = 0; i < 32; i++) {
        const std::uint64_t flag = bit(i);
        const std::uint32_t answer = (kRefused & flag) != 0 ? kRefuse : kAllow;
        EXPECT_EQ(machine(SYS_clone, {flag}), answer) << i;
        EXPECT_EQ(machine(SYS_clone, {flag | SIGCHLD | CLONE_VM}), answer) << i;
        EXPECT_EQ(machine(SYS_clone, {flag | 0xffffffff00000000}), answer) << i;
    }
    // As C libraries start threads and processes.
    EXPECT_EQ(machine(SYS_clone,
                      {CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD |
                       CLONE_SYSVSEM | CLONE_SETTLS | CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID}),
              kAllow);
    EXPECT_EQ(machine(SYS_clone, {CLONE_VM | CLONE_VFORK | SIGCHLD}), kAllow);
    EXPECT_EQ(machine(SYS_clone, {~0ULL}), kRefuse);
    EXPECT_EQ(machine(SYS_clone3), kAbsent);
}

TEST(SeccompDefault, UnshareCreatesNoNamespaces)
{
    const SeccompCode code = default_filter();
    const FilterMachine machine(code);
    constexpr unsigned kRefused = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC |
                                  CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWTIME;
    for (unsigned i = 0; i < 32; i++)
        for (const std::uint64_t more : {std::uint64_t{0}, std::uint64_t{CLONE_FILES}, bit(40)})
            EXPECT_EQ(machine(SYS_unshare, {bit(i) | more}),
                      (kRefused & bit(i)) != 0 ? kRefuse : kAllow)
                << i;
}

TEST(SeccompDefault, AnAdministratorCreatesNamespacesButNoSiblings)
{
    const SeccompCode code = default_filter(kDefaults | bit(CAP_SYS_ADMIN));
    const FilterMachine machine(code);
    EXPECT_EQ(machine(SYS_clone, {CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD}), kAllow);
    EXPECT_EQ(machine(SYS_clone, {CLONE_PARENT | SIGCHLD}), kRefuse);
    EXPECT_EQ(machine(SYS_unshare, {CLONE_NEWUSER}), kAllow);
    EXPECT_EQ(machine(SYS_clone3), kAbsent);
}

TEST(SeccompDefault, OnlyHarmlessPersonalitiesAreAllowed)
{
    const SeccompCode code = default_filter(~std::uint64_t{0});
    const FilterMachine machine(code);
    constexpr std::uint64_t kOld = UNAME26;
    std::vector<std::uint64_t> values = {0xffffffff, kOld | PER_LINUX32, kOld | READ_IMPLIES_EXEC};
    for (unsigned i = 0; i < 64; i++)
        values.push_back(bit(i));
    for (std::uint64_t value = 0; value < 0x300; value++)
        values.push_back(value);
    for (const std::uint64_t value : values) {
        const auto used = static_cast<std::uint32_t>(value);
        const bool allowed = used == 0 || used == PER_LINUX32 || used == kOld ||
                             used == (kOld | PER_LINUX32) || used == 0xffffffff;
        EXPECT_EQ(machine(SYS_personality, {value}), allowed ? kAllow : kRefuse) << value;
        EXPECT_EQ(machine(SYS_personality, {value | bit(32)}), allowed ? kAllow : kRefuse) << value;
    }
}

TEST(SeccompDefault, VsockIsRefusedWhateverTheUpperHalfContains)
{
    for (const std::uint64_t capabilities : {kDefaults, ~std::uint64_t{0}}) {
        const SeccompCode code = default_filter(capabilities);
        const FilterMachine machine(code);
        for (std::uint64_t family = 0; family < 256; family++)
            for (const std::uint64_t upper : {std::uint64_t{0}, bit(32), 0xffffffff00000000})
                EXPECT_EQ(machine(SYS_socket, {family | upper, SOCK_STREAM, 0}),
                          family == AF_VSOCK ? error_answer(EAFNOSUPPORT) : kAllow)
                    << family;
        EXPECT_EQ(machine(SYS_socketpair, {AF_UNIX, SOCK_STREAM, 0}), kAllow);
    }
    EXPECT_TRUE(exited(status_under(default_filter(),
                                    [] {
                                        const auto family = static_cast<long>(AF_VSOCK | bit(32));
                                        const long got =
                                            ::syscall(SYS_socket, family, SOCK_STREAM, 0);
                                        return got == -1 && errno == EAFNOSUPPORT ? 3 : 4;
                                    }),
                       3));
}

TEST(SeccompDefault, TheAuditSystemLooksAbsentWithoutItsCapability)
{
    const SeccompCode without = default_filter();
    const SeccompCode with = default_filter(bit(CAP_AUDIT_WRITE));
    for (const std::uint64_t upper : {std::uint64_t{0}, bit(32)})
        for (std::uint64_t protocol = 0; protocol < 32; protocol++) {
            const CallArgs args = {AF_NETLINK | upper, SOCK_RAW, protocol | upper};
            EXPECT_EQ(FilterMachine(without)(SYS_socket, args),
                      protocol == NETLINK_AUDIT ? error_answer(EINVAL) : kAllow);
            EXPECT_EQ(FilterMachine(with)(SYS_socket, args), kAllow);
        }
    EXPECT_EQ(FilterMachine(without)(SYS_socket, {AF_INET, SOCK_RAW, NETLINK_AUDIT}), kAllow);
}

// ---------------------------------------------------------------- programs

TEST(SeccompDefault, AShellRunsPipelines)
{
    EXPECT_EQ(run_program({"/bin/sh", "-c",
                           "set -e\n"
                           "dir=$(mktemp -d)\n"
                           "trap 'rm -rf \"$dir\"' EXIT\n"
                           "seq 1 1000 | sort -rn | tail -n 1 >\"$dir/one\"\n"
                           "cp -a \"$dir/one\" \"$dir/two\"\n"
                           "ln -s two \"$dir/link\"\n"
                           "chmod 600 \"$dir/two\"\n"
                           "mv \"$dir/one\" \"$dir/three\"\n"
                           "tar -C \"$dir\" -cf - . | tar -tf - | grep -q three\n"
                           "(sleep 0 & wait)\n"
                           "test \"$(cat \"$dir/link\")\" = 1\n"
                           "ls -laR \"$dir\" >/dev/null\n"
                           "find \"$dir\" -type f | xargs stat >/dev/null\n"
                           "! unshare -U true 2>/dev/null\n"
                           "exit 42"}),
              42);
}

TEST(SeccompDefault, PythonRunsThreadsSocketsAndProcesses)
{
    EXPECT_EQ(run_program(
                  {"/usr/bin/python3", "-c",
                   "import asyncio, mmap, multiprocessing, os, select, signal, socket\n"
                   "import subprocess, sys, tempfile, threading, time\n"
                   "got = []\n"
                   "threads = [threading.Thread(target=got.append, args=(i,)) for i in range(8)]\n"
                   "[t.start() for t in threads]; [t.join() for t in threads]\n"
                   "assert sorted(got) == list(range(8))\n"
                   "for family in (socket.AF_UNIX, socket.AF_INET):\n"
                   "    s = socket.socket(family, socket.SOCK_STREAM)\n"
                   "    s.setblocking(False); s.close()\n"
                   "a, b = socket.socketpair()\n"
                   "a.sendmsg([b'x']); poll = select.epoll(); poll.register(b, select.EPOLLIN)\n"
                   "assert poll.poll(10) and b.recv(1) == b'x'\n"
                   "assert subprocess.run(['true']).returncode == 0\n"
                   "async def main():\n"
                   "    p = await asyncio.create_subprocess_exec('cat', stdin=-1, stdout=-1)\n"
                   "    assert (await p.communicate(b'text'))[0] == b'text'\n"
                   "asyncio.run(main())\n"
                   "with tempfile.TemporaryFile() as f:\n"
                   "    f.truncate(4096); mmap.mmap(f.fileno(), 4096)[0:1] = b'x'\n"
                   "    os.fsync(f.fileno()); os.posix_fallocate(f.fileno(), 0, 8192)\n"
                   "q = multiprocessing.SimpleQueue()\n"
                   "p = multiprocessing.Process(target=q.put, args=(5,)); p.start(); p.join()\n"
                   "assert q.get() == 5 and p.exitcode == 0\n"
                   "os.sched_getaffinity(0); os.getrandom(8); os.memfd_create('m')\n"
                   "os.statvfs('/'); os.listxattr('/tmp'); time.clock_gettime(1)\n"
                   "signal.setitimer(signal.ITIMER_REAL, 100); signal.alarm(0)\n"
                   "sys.exit(43)\n"}),
              43);
}

TEST(SeccompDefault, BusyboxRunsItsApplets)
{
    EXPECT_EQ(
        run_program({"/bin/busybox", "sh", "-c",
                     "echo text | busybox gzip -c | busybox gzip -dc | busybox grep -q text && "
                     "busybox ps >/dev/null && busybox id >/dev/null && exit 44"}),
        44);
}

TEST(SeccompDefault, IsTheSameEachTime)
{
    const SeccompCode first = default_filter();
    const SeccompCode second = default_filter();
    ASSERT_EQ(first.code.size(), second.code.size());
    EXPECT_EQ(std::memcmp(first.code.begin(), second.code.begin(),
                          first.code.size() * sizeof(sock_filter)),
              0);
}
