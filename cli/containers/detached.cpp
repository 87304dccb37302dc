#include "detached.hpp"

#include "front/files.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zncctl {
namespace {

// Detaches from the caller: a new session, and of its descriptors only `kept` stay open, in
// particular no terminal and no pipe that a process reads to its end.
void detach_from_caller(std::vector<int> kept)
{
    ::setsid();
    std::sort(kept.begin(), kept.end());
    unsigned first = STDERR_FILENO + 1;
    for (const int fd : kept) {
        if (static_cast<unsigned>(fd) > first)
            ::close_range(first, static_cast<unsigned>(fd) - 1, 0);
        first = static_cast<unsigned>(fd) + 1;
    }
    ::close_range(first, std::numeric_limits<unsigned>::max(), 0);
    const znc::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = 0; fd < 3; fd++)
        ::dup2(null.get(), fd);
    if (::chdir("/") != 0)
        errno = 0; // not fatal: the caller's directory merely stays in use
    ::umask(077);
    // The daemon's progress texts must not appear in the program's log.
    ::setenv("ZNC_VERBOSE", "0", 1); // NOLINT(concurrency-mt-unsafe): there is one thread
}

} // namespace

Pipe make_pipe()
{
    std::array<int, 2> ends = {-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return {};
    return {znc::UniqueFd(ends[0]), znc::UniqueFd(ends[1])};
}

int fork_detached(std::initializer_list<int> kept, const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        return errno;
    if (pid > 0)
        return 0;
    try {
        detach_from_caller(kept);
        body();
    } catch (const std::exception&) { // no place left to report it
        ::_exit(kExitFailure);
    }
    ::_exit(kExitOk);
}

int run_detached(const std::function<void(znc::UniqueFd report)>& body)
{
    Pipe report = make_pipe();
    if (!report.reader)
        return errno;
    if (const int error =
            fork_detached({report.writer.get()}, [&] { body(std::move(report.writer)); });
        error != 0)
        return error;
    report.writer.reset();
    int error = -1;
    while (::read(report.reader.get(), &error, sizeof error) < 0 && errno == EINTR) {
    }
    return error;
}

void report_start(znc::UniqueFd report, int error)
{
    static_cast<void>(
        write_all(report.get(), {reinterpret_cast<const char*>(&error), sizeof error}));
}

} // namespace zncctl
