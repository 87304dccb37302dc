#include "session.hpp"

#include "detached.hpp"
#include "front/output.hpp"

#include <array>
#include <cerrno>
#include <csignal>

namespace zncctl {

bool Session::open(const std::optional<TerminalOptions>& terminal, bool input)
{
    return terminal ? open_terminal(*terminal, input) : streams_.make_pipes(input);
}

bool Session::open_terminal(const TerminalOptions& options, bool input)
{
    terminals_.reset(new Terminals{nullptr, Pty(options.ns, options.owner), options.keys});
    if (input)
        terminals_->raw = std::make_unique<RawTerminal>();
    if ((input && !*terminals_->raw) || !terminals_->pty) {
        restore_terminal();
        return false;
    }
    if (input)
        streams_.use_terminal(
            terminals_->pty,
            [this](std::string_view typed) { return terminals_->keys.pass(typed); },
            [this](std::string_view typed) { handle_keys(typed); });
    else
        streams_.use_terminal(terminals_->pty, nullptr, nullptr);
    return true;
}

void Session::watch_output(const std::function<void(std::string_view)>& watcher)
{
    streams_.watch_output(watcher);
}

int Session::start(const std::function<int(Program&, const ProgramStreams&)>& start)
{
    const int error = start(program_, streams_.of_program());
    if (error != 0) {
        restore_terminal();
        return error;
    }
    streams_.started();
    if (terminals_)
        terminals_->pty.close_user();
    return 0;
}

int Session::start_hosted(const std::function<void(ProgramLink link, Pty terminal)>& host)
{
    Pty& pty = terminals_->pty;
    std::array<ProgramLink, 2> ends = ProgramLink::make();
    const int error = !ends[0] ? errno
                               : fork_detached({ends[1].fd(), pty.master(), pty.user()},
                                               [&] { host(std::move(ends[1]), std::move(pty)); });
    ends[1].close();
    streams_.watch_output([this](std::string_view text) { program_.tell_output(text); });
    return start([&](Program& program, const ProgramStreams& /*streams*/) {
        return error != 0 ? error : program.follow(std::move(ends[0]));
    });
}

std::optional<int> Session::wait()
{
    for (;;) {
        if (const auto& status = program_.look())
            return *status;
        do {
            streams_.wait(signals_, program_.host());
            set_raw(); // zncctl may be back in the foreground
            if (terminals_ && terminals_->keys.typed())
                return std::nullopt;
        } while (!handle_signals() && program_.host() < 0);
    }
}

int Session::finish(const std::string& id, int status)
{
    pass_rest();
    program_.leave();
    restore_terminal();
    return streams_.report_failures(id) && status == kExitOk ? static_cast<int>(kExitStartFailed)
                                                             : status;
}

std::optional<int> Session::leave()
{
    restore_terminal();
    return program_.leave();
}

// There is no program to forward signals to any more: signals that end a program end zncctl.
void Session::pass_rest()
{
    Program::leave_others();
    streams_.finish();
    while (!streams_.done()) {
        streams_.wait(signals_);
        while (const auto signo = signals_.next()) {
            if (*signo == SIGINT || *signo == SIGTERM || *signo == SIGHUP || *signo == SIGQUIT)
                return;
            if (*signo == SIGTSTP)
                stop_self();
        }
    }
}

// True if there was a SIGCHLD: a child may have ended.
bool Session::handle_signals()
{
    bool child = false;
    while (const auto signo = signals_.next()) {
        child = child || *signo == SIGCHLD;
        handle(*signo);
    }
    return child;
}

void Session::handle(int signo)
{
    if (signo == SIGCHLD || signo == SIGPIPE)
        return;
    if (signo == SIGWINCH) {
        if (terminals_)
            terminals_->pty.copy_size();
        return;
    }
    paths_.forward(program_, signo);
    if (signo == SIGTSTP)
        stop_self();
}

void Session::handle_keys(std::string_view typed)
{
    for (const char c : typed)
        if (const int signo = terminals_->pty.signal_of(c); signo != 0) {
            terminals_->pty.settle();
            paths_.typed(program_, signo);
        }
}

// Stops zncctl itself: the terminal's stop key does not reach the program, which has a session of
// its own.
void Session::stop_self()
{
    if (terminals_ && terminals_->raw)
        terminals_->raw->lend();
    ::raise(SIGSTOP);
    set_raw();
}

void Session::set_raw()
{
    if (terminals_ && terminals_->raw)
        terminals_->raw->set_raw();
}

void Session::restore_terminal()
{
    if (terminals_ && terminals_->raw)
        terminals_->raw->restore();
}

} // namespace zncctl
