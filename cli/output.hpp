// output.hpp - what zncctl prints and how it ends: results on standard output, everything else on
// standard error, never a half result. Used by all commands.
#ifndef ZNCCTL_OUTPUT_HPP
#define ZNCCTL_OUTPUT_HPP

#include <string_view>

#include "zarnel/owned.hpp"

namespace zncctl {

// Exit statuses. `start` without --detach gives its program's own, so that its failures are told by
// numbers that programs rarely use.
enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,
    kExitNotFound = 2,       // no such container
    kExitWrongState = 3,     // it runs, has run, or exists already
    kExitNoDaemon = 4,       // no daemon, or no answer from it
    kExitUsage = 64,         // bad arguments
    kExitStartFailed = 125,  // start: the container could not be started
    kExitCannotInvoke = 126, // start: its program could not be loaded
    kExitSignalBase = 128    // start: plus the host's number of the signal that ended it
};

// While it lives, what the library prints (progress texts, error messages) goes to standard
// error. Not around zncStart without care: the container's process takes over descriptor 1.
class StdoutToStderr {
  public:
    StdoutToStderr();
    ~StdoutToStderr();
    StdoutToStderr(const StdoutToStderr&) = delete;
    StdoutToStderr& operator=(const StdoutToStderr&) = delete;

  private:
    znc::UniqueFd saved_;
};

// Calls the library with that guard. The error number is 0 when the call fails without setting one.
template <class Call> auto call_library(Call call)
{
    const StdoutToStderr guard;
    errno = 0;
    return call();
}

// "Error: <message>." from the library's table; `unnumbered` is the message for 0.
void show_error(int error, const char* unnumbered);

// A failed request to the daemon: its message and its exit status.
int daemon_failure(int error);

// A failed operation in this process: its message, kExitFailure.
int local_failure(int error, const char* unnumbered = "The operation failed");

// Bad arguments of a command: a line that says what, kExitUsage. main adds the usage line.
int usage_failure(std::string_view problem);

// Prints a result, adding a last line end where there is none; kExitOk, or a failure when it could
// not be written.
int print_result(std::string_view text);

} // namespace zncctl

#endif
