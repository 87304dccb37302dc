#include "foreground.hpp"

#include "cli/terminal/terminal.hpp"
#include "front/output.hpp"
#include "streams.hpp"

#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <memory>

namespace zncctl {
namespace {

// A terminal of the program's own, and the caller's, which is raw meanwhile.
struct Terminals {
    RawTerminal raw;
    Pty pty;
};

class Foreground {
  public:
    Foreground(const std::string& id, const SignalQueue& signals, bool tty)
        : id_(id), signals_(signals), tty_(tty), to_program_(id)
    {
    }

    int run()
    {
        if (const int error = startable(id_); error != 0)
            return start_failure(error, id_);
        if (!make_streams()) {
            leave_terminal();
            return failure(id_, "its streams cannot be made", kExitStartFailed);
        }
        const RecordKeeper record = RecordKeeper::begin(id_);
        if (const int error = program_.start(id_, streams_.of_program()); error != 0) {
            leave_terminal();
            remove_record(id_);
            return start_failure(error, id_);
        }
        Record known = describe(program_, false);
        record.write(known);
        streams_.started();
        if (terminals_)
            terminals_->pty.close_user();
        known.exit_code = wait();
        known.exited = time_text(std::time(nullptr));
        record.write(known);
        pass_rest();
        leave_terminal();
        return streams_.report_failures(id_) && *known.exit_code == kExitOk
                   ? static_cast<int>(kExitStartFailed)
                   : *known.exit_code;
    }

  private:
    bool make_streams()
    {
        if (!tty_)
            return streams_.make_pipes();
        terminals_ = std::make_unique<Terminals>();
        if (!terminals_->raw || !terminals_->pty)
            return false;
        streams_.use_terminal(terminals_->pty, [this](std::string_view typed) { keys(typed); });
        return true;
    }

    int wait()
    {
        for (;;) {
            if (const auto& status = program_.look())
                return *status;
            do {
                streams_.wait(signals_);
                if (terminals_)
                    terminals_->raw.set_raw(); // when it has come back from the background
            } while (!take_signals());
        }
    }

    // What the program has written before its end, however slowly it is read. There is nobody left
    // to hand signals to: those that end a program end this.
    void pass_rest()
    {
        Program::leave_others();
        streams_.finish();
        while (!streams_.done()) {
            streams_.wait(signals_);
            while (const auto signo = signals_.next()) {
                if (*signo == SIGINT || *signo == SIGTERM || *signo == SIGHUP || *signo == SIGQUIT)
                    return;
                if (*signo == SIGTSTP)
                    stop_here();
            }
        }
    }

    // Whether a child may have ended.
    bool take_signals()
    {
        bool child = false;
        while (const auto signo = signals_.next()) {
            child = child || *signo == SIGCHLD;
            take(*signo);
        }
        return child;
    }

    void take(int signo)
    {
        if (signo == SIGCHLD || signo == SIGPIPE)
            return;
        if (signo == SIGWINCH) {
            if (terminals_)
                terminals_->pty.copy_size();
            return;
        }
        to_program_.forward(signo);
        if (signo == SIGTSTP)
            stop_here();
    }

    void keys(std::string_view typed)
    {
        for (const char c : typed)
            if (const int signo = terminals_->pty.signal_of(c); signo != 0) {
                terminals_->pty.settle();
                forward_signal(id_, signo, true);
            }
    }

    // The program is in a session of its own, which a terminal's stop key does not reach.
    void stop_here()
    {
        if (terminals_)
            terminals_->raw.lend();
        ::raise(SIGSTOP);
        if (terminals_)
            terminals_->raw.set_raw();
    }

    // Before anything is printed.
    void leave_terminal()
    {
        if (terminals_)
            terminals_->raw.restore();
    }

    const std::string& id_;
    const SignalQueue& signals_;
    bool tty_;
    SignalRelay to_program_;
    std::unique_ptr<Terminals> terminals_;
    Streams streams_; // its pumps know the terminals
    Program program_;
};

} // namespace

void SignalRelay::forward(int signo)
{
    forward_signal(id_, signo);
    if ((signo == SIGINT || signo == SIGTERM) && signo == last_)
        print_hint(fmt::format("{} goes on; 'zncctl kill -s KILL {}' ends it by force", id_, id_));
    last_ = signo;
}

int run_in_foreground(const std::string& id, const SignalQueue& signals, bool tty)
{
    return Foreground(id, signals, tty).run();
}

} // namespace zncctl
