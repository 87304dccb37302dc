// output.hpp - what zncctl prints and how it ends: results on standard output, everything else on
// standard error, never a half result. Used by all commands.
#ifndef ZNC_FRONT_OUTPUT_HPP
#define ZNC_FRONT_OUTPUT_HPP

#include "command.hpp"

#include "base/owned.hpp"

namespace zncctl {

// Exit statuses. Commands that end as a program does (run, start --attach, attach) give its own, so
// that their failures are told by numbers that programs rarely use.
enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,
    kExitNotFound = 2,       // no such container
    kExitWrongState = 3,     // it runs, has run, or exists already
    kExitNoDaemon = 4,       // no daemon, no answer from it, or a time that ran out
    kExitUsage = 64,         // bad arguments
    kExitStartFailed = 125,  // the container could not be started
    kExitCannotInvoke = 126, // its program could not be executed
    kExitNoProgram = 127,    // there is no such program
    kExitSignalBase = 128    // plus the host's number of the signal that ended it
};

// What the library prints while it lives (progress texts, error messages, which may hold names of
// foreign origin) goes to standard error at its end, made printable. Not around zncStart without
// care: the container's process takes over descriptor 1.
class StdoutToStderr {
  public:
    StdoutToStderr();
    ~StdoutToStderr();
    StdoutToStderr(const StdoutToStderr&) = delete;
    StdoutToStderr& operator=(const StdoutToStderr&) = delete;

  private:
    void pass_on() const;

    znc::UniqueFd printed_;
    znc::UniqueFd saved_;
};

// Calls the library with that guard. The error number is 0 when the call fails without setting one.
template <class Call> auto call_library(Call call)
{
    const StdoutToStderr guard;
    errno = 0;
    return call();
}

// The message of the library's table; `unnumbered` is the one for 0.
std::string message_of(int error, const char* unnumbered);

// "zncctl: error: <object>: <message>", "zncctl: warning: <text>" and "zncctl: hint: <text>", a
// line each. No object: "".
void print_error(std::string_view object, std::string_view message);
void print_warning(std::string_view text);
void print_hint(std::string_view text);

// A failed request to the daemon: its message, a hint where one is known, and its exit status.
int daemon_failure(int error, std::string_view object);
ExitStatus daemon_status(int error);

// A failed operation in this process: its message, kExitFailure.
int local_failure(int error, std::string_view object,
                  const char* unnumbered = "The operation failed");

// A failure with a text of its own.
int failure(std::string_view object, std::string_view message, ExitStatus status = kExitFailure);

// Bad arguments of a command: a line that says what, kExitUsage. main adds the usage line.
int usage_failure(std::string_view problem);

// The option --format of a command that has it. False, after a message, for an unknown one.
bool read_format(const Arguments& args, bool& json);

// Prints a result, made printable, adding a last line end where there is none; kExitOk, or a
// failure when it could not be written.
int print_result(std::string_view text);

// The same for a JSON document, which stays one.
int print_json(std::string_view json);

// Columns as wide as their widest text, the first row being the heading. On a terminal, unless
// `whole`, the last column is cut to what is left of a line.
std::string table(std::vector<std::vector<std::string>> rows, bool whole = false);

} // namespace zncctl

#endif
