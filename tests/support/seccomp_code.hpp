// seccomp_code.hpp - asks a compiled filter for its answers, with an interpreter and by the kernel.
#ifndef SECCOMP_CODE_HPP
#define SECCOMP_CODE_HPP

#include "settings/seccomp.hpp"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__x86_64__)
inline constexpr std::uint32_t kNativeArch = AUDIT_ARCH_X86_64;
#else
inline constexpr std::uint32_t kNativeArch = AUDIT_ARCH_AARCH64;
#endif
inline constexpr std::uint32_t kX32 = 0x40000000;

using CallArgs = std::array<std::uint64_t, 6>;

inline std::uint32_t error_answer(int error)
{
    return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error);
}

// Executes the filter as the kernel does: instructions of classic BPF on one record of a call. An
// instruction that the kernel would not accept in a filter is a failure of the test.
class FilterMachine {
  public:
    explicit FilterMachine(const zn::SeccompCode& code) : code_(code.code) {}

    std::uint32_t operator()(std::uint64_t number, const CallArgs& args = {},
                             std::uint32_t arch = kNativeArch) const
    {
        seccomp_data data = {};
        data.nr = static_cast<int>(number);
        data.arch = arch;
        std::memcpy(data.args, args.data(), sizeof data.args);
        std::uint32_t accumulator = 0;
        for (std::size_t at = 0; at < code_.size(); at++) {
            const sock_filter& one = code_[at];
            switch (one.code) {
            case BPF_LD | BPF_W | BPF_ABS:
                if (one.k % 4 != 0 || one.k > sizeof data - 4)
                    return refused(at);
                std::memcpy(&accumulator, reinterpret_cast<const char*>(&data) + one.k, 4);
                break;
            case BPF_ALU | BPF_AND | BPF_K:
                accumulator &= one.k;
                break;
            case BPF_JMP | BPF_JA:
                at += one.k;
                break;
            case BPF_JMP | BPF_JEQ | BPF_K:
                at += accumulator == one.k ? one.jt : one.jf;
                break;
            case BPF_JMP | BPF_JGT | BPF_K:
                at += accumulator > one.k ? one.jt : one.jf;
                break;
            case BPF_JMP | BPF_JGE | BPF_K:
                at += accumulator >= one.k ? one.jt : one.jf;
                break;
            case BPF_JMP | BPF_JSET | BPF_K:
                at += (accumulator & one.k) != 0 ? one.jt : one.jf;
                break;
            case BPF_RET | BPF_K:
                return one.k;
            default:
                return refused(at);
            }
        }
        return refused(code_.size());
    }

  private:
    static std::uint32_t refused(std::size_t at)
    {
        ADD_FAILURE() << "no valid instruction at " << at;
        return SECCOMP_RET_KILL_PROCESS;
    }
    const zn::List<sock_filter>& code_;
};

// Installs the filter for the calling thread. False if the kernel does not accept it.
inline bool install_filter(const zn::SeccompCode& code)
{
    const sock_fprog program = {static_cast<unsigned short>(code.code.size()),
                                const_cast<sock_filter*>(code.code.begin())};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, code.flags, &program) == 0;
}

inline constexpr int kNotInstalled = 99;

// Runs `body` in a process with the filter. Returns the wait status; the exit status is that of
// `body`, kNotInstalled if the kernel did not accept the filter. `body` must not use what another
// thread of this process could hold, such as the allocator.
template <class Body> int status_under(const zn::SeccompCode& code, Body body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(install_filter(code) ? body() : kNotInstalled);
    int status = -1;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid)
        ADD_FAILURE() << "no process: " << std::strerror(errno);
    return status;
}

inline bool ended_by(int status, int signal)
{
    return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}
inline bool exited(int status, int with)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == with;
}

// Whether 32-bit system calls work on this machine.
inline bool foreign_calls_possible()
{
#ifdef __x86_64__
    const pid_t pid = ::fork();
    if (pid == 0) {
        long result = 0;
        __asm__ volatile("int $0x80" : "=a"(result) : "a"(20L) : "memory");
        ::_exit(result == ::getpid() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && exited(status, 0);
#else
    return false;
#endif
}

#endif
