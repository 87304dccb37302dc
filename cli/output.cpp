#include "output.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

#include "zncontainer.h"

namespace zncctl {

StdoutToStderr::StdoutToStderr()
{
    std::fflush(stdout);
    saved_.reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

StdoutToStderr::~StdoutToStderr()
{
    const znc::ErrnoSaver keep;
    std::fflush(stdout);
    // Without a saved descriptor standard output was closed before.
    if (!saved_ || ::dup2(saved_.get(), STDOUT_FILENO) < 0)
        ::close(STDOUT_FILENO);
}

void show_error(int error, const char* unnumbered)
{
    const StdoutToStderr guard;
    if (error == 0)
        std::printf("Error: %s.\n", unnumbered);
    else
        zncUtilShowErr(error);
}

int daemon_failure(int error)
{
    show_error(error, "No answer from the daemon");
    switch (error) {
    case ENODEV:
        return kExitNotFound;
    case EBUSY:
    case S_zncLib_CONTAINER_EXISTS:
    case S_zncLib_BUNDLE_IN_USE:
        return kExitWrongState;
    case 0:
    case S_zncLib_DAEMON_NOT_RUNNING:
        return kExitNoDaemon;
    default:
        return kExitFailure;
    }
}

int local_failure(int error, const char* unnumbered)
{
    show_error(error, unnumbered);
    return kExitFailure;
}

int usage_failure(std::string_view problem)
{
    std::fprintf(stderr, "zncctl: %.*s\n", static_cast<int>(problem.size()), problem.data());
    return kExitUsage;
}

int print_result(std::string_view text)
{
    const bool line_end = text.ends_with('\n');
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
                         (line_end || std::fputc('\n', stdout) != EOF) && std::fflush(stdout) == 0;
    return written ? kExitOk : local_failure(errno);
}

} // namespace zncctl
