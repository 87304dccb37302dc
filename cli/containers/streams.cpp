#include "streams.hpp"

#include "detached.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace zncctl {
namespace {

// More than the buffer of a terminal, so that all of the program's output is passed on, but limited
// because a process that the program left behind may go on writing for ever.
constexpr std::size_t kTerminalRest = 256 * 1024;
constexpr timespec kForegroundPoll = {0, 100'000'000};

bool is_null_device(const struct stat& st)
{
    struct stat null = {};
    return S_ISCHR(st.st_mode) && ::stat("/dev/null", &null) == 0 && S_ISCHR(null.st_mode) &&
           st.st_rdev == null.st_rdev;
}

bool is_null_or_closed(int fd)
{
    struct stat st = {};
    return ::fstat(fd, &st) != 0 || is_null_device(st);
}

// Whether both descriptors refer to the same file in the same mode, so that the order of what is
// written to them matters.
bool same_place(int one, int other)
{
    struct stat a = {};
    struct stat b = {};
    return ::fstat(one, &a) == 0 && ::fstat(other, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino && ::fcntl(one, F_GETFL) == ::fcntl(other, F_GETFL);
}

// Affects this end only: the two ends of a pipe have separate flags.
bool set_nonblocking(int fd)
{
    return ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK) == 0;
}

std::size_t bytes_in(const PumpEnd& end)
{
    int bytes = 0;
    return ::ioctl(end.fd(), FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

} // namespace

bool Streams::make_pipes(bool input)
{
    const bool one_output = same_place(STDOUT_FILENO, STDERR_FILENO);
    if ((input && !make_input()) || !make_output(STDOUT_FILENO, "standard output") ||
        (!one_output && !make_output(STDERR_FILENO, "standard error")))
        return false;
    if (one_output)
        of_program_[STDERR_FILENO] = of_program_[STDOUT_FILENO];
    return true;
}

bool Streams::make_input()
{
    if (is_null_or_closed(STDIN_FILENO))
        return true;
    Pipe pipe = make_pipe();
    if (!pipe.reader || !set_nonblocking(pipe.writer.get()))
        return false;
    of_program_[STDIN_FILENO] = pipe.reader.get();
    program_ends_.push_back(std::move(pipe.reader));
    input_.emplace(PumpEnd::of_caller(STDIN_FILENO), PumpEnd::own(std::move(pipe.writer)),
                   "standard input");
    return true;
}

bool Streams::make_output(int fd, const char* name)
{
    if (is_null_or_closed(fd))
        return true;
    Pipe pipe = make_pipe();
    if (!pipe.reader || !set_nonblocking(pipe.reader.get()))
        return false;
    of_program_[static_cast<std::size_t>(fd)] = pipe.writer.get();
    program_ends_.push_back(std::move(pipe.writer));
    outputs_.emplace_back(PumpEnd::own(std::move(pipe.reader)), PumpEnd::of_caller(fd), name);
    struct stat st = {};
    if (::fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISREG(st.st_mode)))
        outputs_.back().move_in_kernel();
    return true;
}

void Streams::use_terminal(const Pty& pty, std::function<std::string(std::string_view)> filter,
                           std::function<void(std::string_view)> typed)
{
    constexpr std::string_view kEndOfFile = "\x04";
    of_program_ = {pty.user(), pty.user(), pty.user()};
    terminal_ = true;
    if (typed) {
        input_.emplace(PumpEnd::of_caller(STDIN_FILENO), PumpEnd::borrowed(pty.master()),
                       "standard input");
        input_->filter(std::move(filter));
        input_->watch(std::move(typed), kEndOfFile);
    }
    outputs_.emplace_back(PumpEnd::borrowed(pty.master()), PumpEnd::of_caller(STDOUT_FILENO),
                          "standard output");
}

void Streams::watch_output(const std::function<void(std::string_view)>& watcher)
{
    for (Pump& output : outputs_)
        output.watch(watcher, "");
}

void Streams::wait(const SignalQueue& signals, int other)
{
    const bool background =
        input_ && input_->from().is_terminal() && in_background(input_->from().fd());
    std::vector<pollfd> wanted;
    const auto add = [&wanted](const Pump& pump) {
        for (const pollfd& fd : pump.wanted())
            wanted.push_back(fd);
    };
    for (const Pump& output : outputs_)
        add(output);
    if (input_) {
        input_->pause(background);
        add(*input_);
    }
    wanted.push_back({other, POLLIN, 0});
    signals.wait(wanted, background ? &kForegroundPoll : nullptr);
    std::size_t at = 0;
    for (Pump& output : outputs_) {
        output.go(wanted[at].revents, wanted[at + 1].revents);
        at += 2;
    }
    if (input_)
        input_->go(wanted[at].revents, wanted[at + 1].revents);
}

void Streams::finish()
{
    if (input_)
        input_->abandon();
    for (Pump& output : outputs_)
        if (!output.done())
            output.finish(terminal_ ? kTerminalRest : bytes_in(output.from()));
}

bool Streams::done() const
{
    return std::all_of(outputs_.begin(), outputs_.end(),
                       [](const Pump& output) { return output.done(); });
}

bool Streams::report_failures(const std::string& id) const
{
    bool any = false;
    const auto report = [&](const Pump& pump) {
        if (pump.error() == 0)
            return;
        any = true;
        static_cast<void>(local_failure(pump.error(), fmt::format("{}: {}", id, pump.name())));
    };
    if (input_)
        report(*input_);
    for (const Pump& output : outputs_)
        report(output);
    return any;
}

} // namespace zncctl
