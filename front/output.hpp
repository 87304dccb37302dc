// output.hpp - output and exit statuses of zncctl. Results go to standard output, everything else
// to standard error; a result that cannot be written completely is a failure. Used by all commands.
#ifndef ZNC_FRONT_OUTPUT_HPP
#define ZNC_FRONT_OUTPUT_HPP

#include "command.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"

namespace zncctl {

// Exit statuses. Commands that return a program's exit status (run, start --attach, attach) use
// high numbers for their own failures, which programs rarely use.
enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,
    kExitNotFound = 2,       // no such container or image
    kExitWrongState = 3,     // the container is running, has run, or exists already
    kExitNoDaemon = 4,       // no daemon, no answer from it, or a timeout
    kExitUsage = 64,         // bad arguments
    kExitStartFailed = 125,  // the container could not be started
    kExitCannotInvoke = 126, // its program could not be executed
    kExitNoProgram = 127,    // there is no such program
    kExitSignalBase = 128    // plus the host's number of the signal that killed the program
};

// Redirects what the library prints to standard output (progress texts, error messages) to standard
// error: the destructor prints it there, made printable, because it may contain untrusted names.
// Must not be used around zncStart unless descriptor 1 is set up for the container, whose process
// inherits it.
class StdoutToStderr : znc::NotCopied {
  public:
    StdoutToStderr();
    ~StdoutToStderr();

  private:
    void forward_text() const;

    znc::UniqueFd printed_;
    znc::UniqueFd saved_;
};

// Calls the library with such a redirection. errno is 0 if the call fails without setting it.
template <class Call> auto call_library(Call call)
{
    const StdoutToStderr guard;
    errno = 0;
    return call();
}

// The library's message for an error; `if_zero` is the message for 0.
std::string message_of(int error, const char* if_zero);

// Print one line: "zncctl: error: <object>: <message>", "zncctl: warning: <text>", "zncctl: hint:
// <text>". `object` may be "".
void print_error(std::string_view object, std::string_view message);
void print_warning(std::string_view text);
void print_hint(std::string_view text);

// Reports a failed request to the daemon: prints the message, and a hint if there is one, and
// returns the exit status.
int daemon_failure(int error, std::string_view object);
ExitStatus daemon_status(int error);

// Reports a failed operation in this process: prints the message and returns kExitFailure.
int local_failure(int error, std::string_view object, const char* if_zero = "The operation failed");

// Reports a failure with the given message.
int failure(std::string_view object, std::string_view message, ExitStatus status = kExitFailure);

// Reports bad arguments: prints a message and returns kExitUsage. main adds the usage line.
int usage_failure(std::string_view problem);

// Reads the option --format. False, after printing a message, if its value is unknown.
bool read_format(const Arguments& args, bool& json);

// Prints a result, made printable, and adds a final newline if there is none. Returns kExitOk, or
// kExitFailure after a message if it could not be written.
int print_result(std::string_view text);

// The same for a JSON document, escaped so that it remains valid JSON.
int print_json(std::string_view json);

// Formats rows as columns, each as wide as its widest text; the first row is the heading. On a
// terminal, lines are cut to its width unless `whole` is set.
std::string table(std::vector<std::vector<std::string>> rows, bool whole = false);

} // namespace zncctl

#endif
