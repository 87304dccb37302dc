#include "detached.hpp"

#include "front/files.hpp"
#include "front/output.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>

namespace zncctl {
namespace {

// Detaches from the caller: a new session, and none of its descriptors stays open, in particular no
// terminal, and no pipe that another process reads until its end. `report` becomes descriptor 3.
void detach_from_caller(znc::UniqueFd& report)
{
    constexpr int kReport = 3;
    ::setsid();
    if (report.get() != kReport) {
        ::dup3(report.get(), kReport, O_CLOEXEC);
        report.reset(kReport);
    }
    ::closefrom(kReport + 1);
    const znc::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = 0; fd < kReport; fd++)
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

int run_detached(const std::function<void(znc::UniqueFd report)>& body)
{
    Pipe report = make_pipe();
    if (!report.reader)
        return errno;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        return errno;
    if (pid == 0) {
        report.reader.reset();
        detach_from_caller(report.writer);
        try {
            body(std::move(report.writer));
        } catch (const std::exception&) { // there is nowhere to report it
            ::_exit(kExitFailure);
        }
        ::_exit(kExitOk);
    }
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
