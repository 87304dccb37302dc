// ns_network.cpp - starts the program that connects a namespace's network, and the supervisor
// process ("guard") that kills the program when the namespace ends.
#include "zarnel/ns_network.h"

#include "base/failure.hpp"
#include "net_program.hpp"
#include "system/pidfd.hpp"
#include "zarnel/ns_control.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kReadyTime = 10000; // milliseconds
constexpr std::size_t kTextMax = 1024;

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;

    bool make()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return false;
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        return true;
    }
};

// What the program and its guard need. The guard reports to the caller of znnsNetConnect: a NUL
// when the network works, or why the program failed, and then closes the pipe.
struct Connection {
    UniqueFd holder;  // a process in the namespace
    UniqueFd network; // the network namespace
    Pipe ready;
    Pipe output;
    Pipe report;
};

// The network namespace, which must not be that of this process.
bool open_network(pid_t holder, Connection& to)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/ns/net", static_cast<int>(holder));
    to.network.reset(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat own;
    struct stat other;
    if (!to.network || ::fstat(to.network.get(), &other) != 0 ||
        ::stat("/proc/self/ns/net", &own) != 0)
        return false;
    errno = EINVAL;
    return own.st_dev != other.st_dev || own.st_ino != other.st_ino;
}

bool open_namespace(nsid_t ns, Connection& to)
{
    const pid_t holder = znnsHolder(ns);
    if (holder <= 0)
        return false;
    to.holder = process_open(holder);
    if (!to.holder || !open_network(holder, to))
        return false;
    // Its id may have been reused before the process was opened; then it is not the holder any
    // more.
    return znnsHolder(ns) == holder;
}

// The program's standard error is a pipe, which must be read as long as the program runs.
class Guard {
  public:
    Guard(Connection& connection, UniqueFd end)
        : holder_(std::move(connection.holder)), end_(std::move(end)),
          ready_(std::move(connection.ready.reader)), output_(std::move(connection.output.reader)),
          report_(std::move(connection.report.writer))
    {
    }

    void run(pid_t program)
    {
        program_ = process_open(program);
        ::fcntl(output_.get(), F_SETFL, O_NONBLOCK);
        const std::int64_t deadline = now_ns() + std::int64_t{kReadyTime} * 1000000;
        while (program_ && wait(deadline)) {
        }
        if (program_) {
            process_signal(program_.get(), SIGKILL);
            process_reap(program_.get());
        }
        read_output();
        if (!works_ && used_ != 0)
            report(text_, used_);
    }

  private:
    // False when the program must end or has ended.
    bool wait(std::int64_t deadline)
    {
        pollfd fds[] = {{holder_.get(), POLLIN, 0},
                        {end_.get(), POLLIN, 0},
                        {program_.get(), POLLIN, 0},
                        {ready_.get(), POLLIN, 0},
                        {output_.get(), POLLIN, 0}};
        const std::int64_t left = std::max<std::int64_t>((deadline - now_ns()) / 1000000, 0);
        const int n = ::poll(fds, std::size(fds), works_ ? -1 : static_cast<int>(left));
        if (n < 0)
            return errno == EINTR;
        if (fds[4].revents != 0)
            read_output();
        if (fds[3].revents != 0)
            read_ready();
        return n > 0 && fds[0].revents == 0 && fds[1].revents == 0 && fds[2].revents == 0;
    }

    void read_ready()
    {
        char byte = 0;
        if (::read(ready_.get(), &byte, 1) == 1) {
            works_ = true;
            report("", 1);
            report_.reset();
        }
        ready_.reset();
    }

    // Errors are ignored: the caller of znnsNetConnect may have been killed, so that no process
    // reads the pipe.
    void report(const char* text, std::size_t len) const
    {
        if (::write(report_.get(), text, len) < 0)
            errno = 0;
    }

    // Keeps the beginning and discards the rest.
    void read_output()
    {
        char dropped[kTextMax];
        const std::size_t room = sizeof text_ - used_;
        char* to = room != 0 ? text_ + used_ : dropped;
        const ssize_t n = ::read(output_.get(), to, room != 0 ? room : sizeof dropped);
        if (n > 0 && room != 0)
            used_ += static_cast<std::size_t>(n);
        else if (n == 0 || (n < 0 && errno != EAGAIN))
            output_.reset();
    }

    UniqueFd holder_;
    UniqueFd end_;
    UniqueFd ready_;
    UniqueFd output_;
    UniqueFd report_;
    UniqueFd program_;
    bool works_ = false;
    char text_[kTextMax] = {};
    std::size_t used_ = 0;
};

// In a forked process without a parent that waits for it.
[[noreturn]] void guard_program(const NetProgram& start, Connection& connection, int end)
{
    UniqueFd own_end(::fcntl(end, F_DUPFD_CLOEXEC, 3));
    const int kept[] = {connection.holder.get(),        connection.network.get(),
                        connection.ready.reader.get(),  connection.ready.writer.get(),
                        connection.output.reader.get(), connection.output.writer.get(),
                        connection.report.writer.get(), own_end.get()};
    if (!own_end || !detach_process(kept, std::size(kept)))
        ::_exit(1);
    const pid_t self = ::getpid();
    const pid_t program = ::fork();
    if (program == 0)
        net_program_exec(start, self, connection.network.get(), connection.ready.writer.get(),
                         connection.output.writer.get());
    connection.network.reset();
    connection.ready.writer.reset();
    connection.output.writer.reset();
    if (program > 0) {
        Guard guard(connection, std::move(own_end));
        guard.run(program);
    }
    ::_exit(0);
}

// Starts the guard as a process that is not a child of this one, so that the caller need not reap
// it.
bool start_guard(const NetProgram& start, Connection& connection, int end)
{
    const pid_t child = ::fork();
    if (child < 0)
        return false;
    if (child == 0) {
        ::setsid();
        const pid_t guard = ::fork();
        if (guard == 0)
            guard_program(start, connection, end);
        ::_exit(guard > 0 ? 0 : 1);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return errno == ECHILD; // the caller ignores SIGCHLD
    errno = EAGAIN;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

STATUS read_report(int report, char* problem, std::size_t size)
{
    std::size_t used = 0;
    for (;;) {
        const ssize_t n = ::read(report, problem + used, size - 1 - used);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || used + static_cast<std::size_t>(n) == size - 1) {
            problem[used + static_cast<std::size_t>(n > 0 ? n : 0)] = '\0';
            break;
        }
        used += static_cast<std::size_t>(n);
    }
    if (used == 1 && problem[0] == '\0')
        return OK;
    return znc::fail(EIO);
}

} // namespace
} // namespace zn

STATUS znnsNetConnect(nsid_t ns, const char* program, const char* const* args, int end,
                      char* problem, size_t size)
{
    if (problem == nullptr || size < 2 || program == nullptr || args == nullptr)
        return znc::fail(EINVAL);
    problem[0] = '\0';
    zn::Connection connection;
    if (!zn::open_namespace(ns, connection) || !connection.ready.make() ||
        !connection.output.make() || !connection.report.make() ||
        !zn::net_program_may_open(connection.ready.writer.get()) ||
        !zn::start_guard({program, args}, connection, end))
        return ERROR;
    // All that remains open here is where the guard reports: the guard waits for the end of the
    // other pipes.
    const zn::UniqueFd report = std::move(connection.report.reader);
    connection = zn::Connection();
    return zn::read_report(report.get(), problem, size);
}
