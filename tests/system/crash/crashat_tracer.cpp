#include "crashat_tracer.hpp"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

namespace {

constexpr unsigned long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK |
                                   PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC |
                                   PTRACE_O_EXITKILL;

long trace(int request, pid_t pid, unsigned long address = 0, unsigned long data = 0)
{
    return ::ptrace(static_cast<__ptrace_request>(request), pid, address, data);
}

#if defined(__x86_64__)
void skip_call(pid_t pid)
{
    trace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, orig_rax), ~0UL);
}

void set_result(pid_t pid, long result)
{
    trace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, rax),
          static_cast<unsigned long>(result));
}
#elif defined(__aarch64__)
void skip_call(pid_t pid)
{
    int none = -1;
    iovec number = {&none, sizeof none};
    trace(PTRACE_SETREGSET, pid, NT_ARM_SYSTEM_CALL, reinterpret_cast<unsigned long>(&number));
}

void set_result(pid_t pid, long result)
{
    user_regs_struct registers{};
    iovec all = {&registers, sizeof registers};
    const auto where = reinterpret_cast<unsigned long>(&all);
    if (trace(PTRACE_GETREGSET, pid, NT_PRSTATUS, where) != 0)
        return;
    registers.regs[0] = static_cast<unsigned long long>(result);
    trace(PTRACE_SETREGSET, pid, NT_PRSTATUS, where);
}
#else
void skip_call(pid_t)
{
    throw std::runtime_error("this machine's registers are not known");
}

void set_result(pid_t, long) {}
#endif

} // namespace

Tracer::Tracer(std::string own) : own_(std::move(own))
{
    // Orphans become children of this process, so that none is missed.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool Tracer::adopt(pid_t pid, Side side)
{
    if (trace(PTRACE_SEIZE, pid, 0, kOptions) != 0)
        return false;
    tracees_[pid].side = side;
    return true;
}

void Tracer::watch(Side side, Judge judge)
{
    judge_ = std::move(judge);
    watched_ = side;
    for (auto& [pid, tracee] : tracees_)
        if (tracee.side == side && trace(PTRACE_INTERRUPT, pid) == 0)
            tracee.interrupted = true;
    const auto all_resumed = [this] {
        for (const auto& [pid, tracee] : tracees_)
            if (tracee.interrupted)
                return false;
        return true;
    };
    if (!serve_until(all_resumed, std::chrono::seconds(60)))
        throw std::runtime_error("a traced process does not stop");
}

bool Tracer::serve_until(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (;;) {
        while (serve_one()) {
        }
        if (done())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        const timespec wait = {0, 2000000};
        ::sigtimedwait(&set, nullptr, &wait);
    }
}

std::optional<int> Tracer::status(pid_t pid) const
{
    const auto found = ended_.find(pid);
    return found == ended_.end() ? std::nullopt : std::optional(found->second);
}

bool Tracer::serve_one()
{
    int status = 0;
    const pid_t pid = ::waitpid(-1, &status, __WALL | WNOHANG);
    if (pid <= 0)
        return false;
    if (WIFSTOPPED(status))
        handle_stop(pid, status);
    else
        note_end(pid, status);
    return true;
}

void Tracer::note_end(pid_t pid, int status)
{
    const auto found = tracees_.find(pid);
    const bool crash =
        WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL && WTERMSIG(status) != SIGTERM;
    if (found != tracees_.end() && crash)
        crashes_ += "process " + std::to_string(pid) + " ended by signal " +
                    std::to_string(WTERMSIG(status)) + "\n";
    if (found != tracees_.end())
        tracees_.erase(found);
    ended_[pid] = status;
}

void Tracer::handle_stop(pid_t pid, int status)
{
    Tracee& tracee = tracees_[pid]; // a new process may stop before its parent's fork event arrives
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    int deliver = 0;
    // A stop for any other reason takes the place of the requested one.
    if (tracee.side != Side::kNone)
        tracee.interrupted = false;
    switch (event) {
    case PTRACE_EVENT_FORK:
    case PTRACE_EVENT_VFORK:
    case PTRACE_EVENT_CLONE: {
        unsigned long child = 0;
        trace(PTRACE_GETEVENTMSG, pid, 0, reinterpret_cast<unsigned long>(&child));
        const auto childPid = static_cast<pid_t>(child);
        ended_.erase(childPid);
        Tracee& born = tracees_[childPid];
        const bool waits = born.side == Side::kNone && born.interrupted;
        born.side = tracee.side;
        born.interrupted = false;
        if (waits)
            resume(childPid, born, 0);
        break;
    }
    case PTRACE_EVENT_EXEC:
        if (!is_own(pid)) {
            tracees_.erase(pid);
            trace(PTRACE_DETACH, pid);
            return;
        }
        break;
    case PTRACE_EVENT_STOP:
        // its parent is not known yet: the fork event is still to come
        if (tracee.side == Side::kNone) {
            tracee.interrupted = true;
            return;
        }
        break;
    default:
        if (signal == (SIGTRAP | 0x80))
            handle_call(pid, tracee);
        else
            deliver = signal;
    }
    resume(pid, tracee, deliver);
}

void Tracer::handle_call(pid_t pid, Tracee& tracee)
{
    __ptrace_syscall_info info = {};
    if (trace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, reinterpret_cast<unsigned long>(&info)) <=
        0)
        return;
    if (info.op == PTRACE_SYSCALL_INFO_EXIT && tracee.error != 0) {
        set_result(pid, -tracee.error);
        tracee.error = 0;
    }
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || tracee.side != watched_)
        return;
    const Fate fate = judge_(pid, static_cast<long>(info.entry.nr));
    if (fate.killed)
        ::kill(pid, SIGKILL);
    if (fate.error != 0) {
        tracee.error = fate.error;
        skip_call(pid);
    }
}

bool Tracer::is_own(pid_t pid) const
{
    std::error_code error;
    const std::string program =
        std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
    return program == own_ || program.find("zn-helper") != std::string::npos;
}

void Tracer::resume(pid_t pid, const Tracee& tracee, int signal) const
{
    const bool calls = tracee.error != 0 || (tracee.side == watched_ && watched_ != Side::kNone);
    trace(calls ? PTRACE_SYSCALL : PTRACE_CONT, pid, 0, static_cast<unsigned long>(signal));
}
