#include "foreground.hpp"

#include "cli/terminal/terminal.hpp"
#include "front/output.hpp"
#include "network.hpp"
#include "streams.hpp"

#include <csignal>
#include <ctime>
#include <fmt/format.h>
#include <memory>

namespace zncctl {
namespace {

// The program's pseudo-terminal, and the caller's terminal, in raw mode.
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
            restore_terminal();
            return failure(id_, "its standard streams cannot be created", kExitStartFailed);
        }
        const RecordKeeper record = RecordKeeper::begin(id_);
        if (const int error = program_.start(id_, streams_.of_program()); error != 0) {
            restore_terminal();
            remove_record(id_);
            return start_failure(error, id_);
        }
        Record program_record = describe(program_, false);
        record.write(program_record);
        streams_.started();
        if (terminals_)
            terminals_->pty.close_user();
        program_record.exit_code = wait();
        program_record.exited = time_text(std::time(nullptr));
        record.write(program_record);
        end_network_of_stopped(id_);
        pass_rest();
        restore_terminal();
        return streams_.report_failures(id_) && *program_record.exit_code == kExitOk
                   ? static_cast<int>(kExitStartFailed)
                   : *program_record.exit_code;
    }

  private:
    bool make_streams()
    {
        if (!tty_)
            return streams_.make_pipes();
        terminals_ = std::make_unique<Terminals>();
        if (!terminals_->raw || !terminals_->pty)
            return false;
        streams_.use_terminal(terminals_->pty,
                              [this](std::string_view typed) { handle_keys(typed); });
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
                    terminals_->raw.set_raw(); // zncctl may be back in the foreground
            } while (!handle_signals());
        }
    }

    // Passes on what the program wrote before it ended, however slowly that is read. There is no
    // program to forward signals to any more: signals that end a program end zncctl.
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
                    stop_self();
            }
        }
    }

    // True if there was a SIGCHLD: a child may have ended.
    bool handle_signals()
    {
        bool child = false;
        while (const auto signo = signals_.next()) {
            child = child || *signo == SIGCHLD;
            handle(*signo);
        }
        return child;
    }

    void handle(int signo)
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
            stop_self();
    }

    void handle_keys(std::string_view typed)
    {
        for (const char c : typed)
            if (const int signo = terminals_->pty.signal_of(c); signo != 0) {
                terminals_->pty.settle();
                forward_signal(id_, signo, true);
            }
    }

    // Stops zncctl itself: the terminal's stop key does not reach the program, which has a session
    // of its own.
    void stop_self()
    {
        if (terminals_)
            terminals_->raw.lend();
        ::raise(SIGSTOP);
        if (terminals_)
            terminals_->raw.set_raw();
    }

    // Must be called before anything is printed.
    void restore_terminal()
    {
        if (terminals_)
            terminals_->raw.restore();
    }

    const std::string& id_;
    const SignalQueue& signals_;
    bool tty_;
    SignalRelay to_program_;
    std::unique_ptr<Terminals> terminals_;
    Streams streams_; // declared after terminals_, which it uses
    Program program_;
};

} // namespace

void SignalRelay::forward(int signo)
{
    forward_signal(id_, signo);
    if ((signo == SIGINT || signo == SIGTERM) && signo == last_)
        print_hint(fmt::format("{} is still running; 'zncctl kill -s KILL {}' kills it", id_, id_));
    last_ = signo;
}

int run_in_foreground(const std::string& id, const SignalQueue& signals, bool tty)
{
    return Foreground(id, signals, tty).run();
}

} // namespace zncctl
