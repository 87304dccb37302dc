#include "session.hpp"

#include "front/output.hpp"

#include <csignal>

namespace zncctl {

bool Session::open(bool tty, bool input)
{
    return tty ? open_terminal(input) : streams_.make_pipes(input);
}

bool Session::open_terminal(bool input)
{
    terminals_ = std::make_unique<Terminals>();
    if (input)
        terminals_->raw = std::make_unique<RawTerminal>();
    if ((input && !*terminals_->raw) || !terminals_->pty) {
        restore_terminal();
        return false;
    }
    if (input)
        streams_.use_terminal(terminals_->pty,
                              [this](std::string_view typed) { handle_keys(typed); });
    else
        streams_.use_terminal(terminals_->pty, nullptr);
    return true;
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

int Session::wait()
{
    for (;;) {
        if (const auto& status = program_.look())
            return *status;
        do {
            streams_.wait(signals_);
            set_raw(); // zncctl may be back in the foreground
        } while (!handle_signals());
    }
}

int Session::finish(const std::string& id, int status)
{
    pass_rest();
    restore_terminal();
    return streams_.report_failures(id) && status == kExitOk ? static_cast<int>(kExitStartFailed)
                                                             : status;
}

// Passes on the rest of the output. The program has ended, so signals are not forwarded: those that
// would end a process end zncctl.
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
