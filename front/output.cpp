#include "output.hpp"

#include "escape.hpp"
#include "files.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

// Runs `call` and returns what the library prints to standard output during it.
template <class Call> std::string capture_output(Call call)
{
    const znc::UniqueFd file(::memfd_create("zncctl", MFD_CLOEXEC));
    const znc::UniqueFd saved(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    std::fflush(stdout);
    if (!file || ::dup2(file.get(), STDOUT_FILENO) < 0)
        return "";
    call();
    std::fflush(stdout);
    if (!saved || ::dup2(saved.get(), STDOUT_FILENO) < 0)
        ::close(STDOUT_FILENO);
    std::array<char, 512> text{};
    const ssize_t len = ::pread(file.get(), text.data(), text.size(), 0);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(len, 0))};
}

bool use_colour()
{
    const char* off = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return (off == nullptr || *off == '\0') && terminal != nullptr &&
           std::string_view(terminal) != "dumb" && ::isatty(STDERR_FILENO) != 0;
}

void print_line(const char* colour, const char* kind, std::string_view text)
{
    std::fflush(stdout);
    if (use_colour())
        fmt::print(stderr, "zncctl: \x1b[{}m{}:\x1b[0m {}\n", colour, kind, printable(text));
    else
        fmt::print(stderr, "zncctl: {}: {}\n", kind, printable(text));
}

// The width of the terminal on standard output; 0 if that is not a terminal.
std::size_t line_width()
{
    winsize size = {};
    if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        return 0;
    return size.ws_col;
}

} // namespace

StdoutToStderr::StdoutToStderr()
    : printed_(::memfd_create("zncctl", MFD_CLOEXEC)),
      saved_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    std::fflush(stdout);
    ::dup2(printed_ ? printed_.get() : STDERR_FILENO, STDOUT_FILENO);
}

StdoutToStderr::~StdoutToStderr()
{
    const znc::ErrnoSaver keep;
    std::fflush(stdout);
    // If nothing was saved, standard output was closed before: close it again.
    if (!saved_ || ::dup2(saved_.get(), STDOUT_FILENO) < 0)
        ::close(STDOUT_FILENO);
    if (printed_ && ::lseek(printed_.get(), 0, SEEK_CUR) > 0)
        forward_text();
}

void StdoutToStderr::forward_text() const
{
    constexpr std::size_t kTextMax = 65536; // more than all progress texts of one call
    std::string text(kTextMax, '\0');
    const ssize_t len = ::pread(printed_.get(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(len, 0)));
    static_cast<void>(write_all(STDERR_FILENO, printable_lines(text)));
}

std::string message_of(int error, const char* if_zero)
{
    if (error == 0)
        return if_zero;
    std::string text = capture_output([error] { zncUtilShowErr(error); });
    if (text.ends_with('\n'))
        text.pop_back();
    if (text.ends_with('.'))
        text.pop_back();
    constexpr std::string_view kStart = "Error: ";
    return text.starts_with(kStart) ? text.substr(kStart.size()) : text;
}

void print_error(std::string_view object, std::string_view message)
{
    print_line("1;31", "error",
               object.empty() ? std::string(message) : fmt::format("{}: {}", object, message));
}

void print_warning(std::string_view text)
{
    print_line("1;33", "warning", text);
}

void print_hint(std::string_view text)
{
    print_line("1", "hint", text);
}

ExitStatus daemon_status(int error)
{
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

int daemon_failure(int error, std::string_view object)
{
    print_error(object, message_of(error, "No answer from the daemon"));
    if (::geteuid() != 0 && (error == S_zncLib_DAEMON_NOT_RUNNING || error == EACCES))
        print_hint("only root can reach the daemon: run this command as root");
    else if (error == S_zncLib_DAEMON_NOT_RUNNING)
        print_hint("start it as root, with 'zncd &' or 'systemctl start zncd'");
    if (error == 0 && zncDaemonIsAlive() != FALSE)
        print_hint(
            "it answers other requests: the answer to this one may be longer than the 64 KiB "
            "that a reply holds");
    if (error == S_zncLib_OCI_CWD_INVALID)
        print_hint("process.cwd in the bundle's config.json must be an absolute path; "
                   "'zncctl config check' lists what else is missing");
    return daemon_status(error);
}

int local_failure(int error, std::string_view object, const char* if_zero)
{
    return failure(object, message_of(error, if_zero));
}

int failure(std::string_view object, std::string_view message, ExitStatus status)
{
    print_error(object, message);
    return status;
}

int usage_failure(std::string_view problem)
{
    return failure("", problem, kExitUsage);
}

bool read_format(const Arguments& args, bool& json)
{
    const std::string_view format = args.value("format", "table");
    json = format == "json";
    if (json || format == "table")
        return true;
    static_cast<void>(local_failure(S_zncLib_INVALID_FORMAT_OPTION, format));
    return false;
}

namespace {

int write_result(std::string_view text)
{
    const bool line_end = text.ends_with('\n');
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
                         (line_end || std::fputc('\n', stdout) != EOF) && std::fflush(stdout) == 0;
    return written ? static_cast<int>(kExitOk) : local_failure(errno, "standard output");
}

} // namespace

int print_result(std::string_view text)
{
    return write_result(printable_lines(text));
}

int print_json(std::string_view json)
{
    return write_result(printable_json(json));
}

std::string table(std::vector<std::vector<std::string>> rows, bool whole)
{
    std::vector<std::size_t> widths;
    for (auto& row : rows)
        for (std::size_t i = 0; i < row.size(); i++) {
            row[i] = printable(row[i]);
            widths.resize(std::max(widths.size(), i + 1));
            widths[i] = std::max(widths[i], character_count(row[i]));
        }
    const std::size_t limit = whole ? 0 : line_width();
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i + 1 < row.size(); i++)
            line += row[i] + std::string(widths[i] - character_count(row[i]) + 2, ' ');
        line += row.back();
        text += limit != 0 ? first_characters(line, limit) : line;
        text += "\n";
    }
    return text;
}

} // namespace zncctl
