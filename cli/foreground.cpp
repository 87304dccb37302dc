#include "foreground.hpp"

#include "files.hpp"
#include "output.hpp"
#include "terminal.hpp"

#include <array>
#include <ctime>
#include <fmt/format.h>
#include <memory>
#include <poll.h>

namespace zncctl {
namespace {

// What the program's terminal and the caller's have to say to each other.
class Relay {
  public:
    explicit Relay(const std::string& id) : id_(id) {}

    [[nodiscard]] bool good() const { return raw_ && pty_; }
    Pty& pty() { return pty_; }
    RawTerminal& raw() { return raw_; }
    [[nodiscard]] int input() const { return input_ended_ ? -1 : STDIN_FILENO; }
    [[nodiscard]] int output() const { return output_ended_ ? -1 : pty_.master(); }

    void pass_input()
    {
        std::array<char, 4096> buffer{};
        const ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n <= 0) {
            constexpr char kEndOfFile = 4;
            input_ended_ = true;
            static_cast<void>(write_all(pty_.master(), {&kEndOfFile, 1}));
            return;
        }
        const std::string_view typed(buffer.data(), static_cast<std::size_t>(n));
        static_cast<void>(write_all(pty_.master(), typed));
        for (const char c : typed)
            if (const int signo = pty_.signal_of(c); signo != 0)
                forward_signal(id_, signo, true);
    }

    // False when there is nothing more now.
    bool pass_output()
    {
        std::array<char, 16384> buffer{};
        const ssize_t n = ::read(pty_.master(), buffer.data(), buffer.size());
        // EIO: nobody has it open any more.
        output_ended_ = n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN);
        if (n <= 0)
            return false;
        return write_all(STDOUT_FILENO, {buffer.data(), static_cast<std::size_t>(n)});
    }

    void pass_rest()
    {
        pollfd output = {pty_.master(), POLLIN, 0};
        while (!output_ended_ && ::poll(&output, 1, 0) == 1 && pass_output()) {
        }
    }

  private:
    const std::string& id_;
    RawTerminal raw_;
    Pty pty_;
    bool input_ended_ = false;
    bool output_ended_ = false;
};

class Foreground {
  public:
    Foreground(const std::string& id, const SignalQueue& signals, bool tty)
        : id_(id), signals_(signals), to_program_(id), relay_(tty ? new Relay(id) : nullptr)
    {
    }

    int run()
    {
        if (relay_ && !relay_->good())
            return failure(id_, "no terminal can be made for the program", kExitStartFailed);
        if (const int error = startable(id_); error != 0)
            return start_failure(error, id_);
        const RecordKeeper record = RecordKeeper::begin(id_);
        program_ = relay_ ? start_program(id_, {user(), user(), user()})
                          : start_program(id_, {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO});
        if (program_.error != 0) {
            if (relay_)
                relay_->raw().restore();
            remove_record(id_);
            return start_failure(program_.error, id_);
        }
        Record known = describe(program_, false);
        record.write(known);
        if (relay_)
            relay_->pty().close_user();
        known.exit_code = wait();
        known.exited = time_text(std::time(nullptr));
        record.write(known);
        return *known.exit_code;
    }

  private:
    [[nodiscard]] int user() const { return relay_->pty().user(); }

    int wait()
    {
        for (;;) {
            if (const auto status = program_ended(program_)) {
                if (relay_)
                    relay_->pass_rest();
                return *status;
            }
            std::array<pollfd, 2> wanted = {pollfd{relay_ ? relay_->input() : -1, POLLIN, 0},
                                            pollfd{relay_ ? relay_->output() : -1, POLLIN, 0}};
            signals_.wait(wanted);
            while (const auto signo = signals_.next())
                take(*signo);
            if (wanted[0].revents != 0)
                relay_->pass_input();
            if (wanted[1].revents != 0)
                relay_->pass_output();
        }
    }

    void take(int signo)
    {
        if (signo == SIGCHLD || signo == SIGPIPE)
            return;
        if (signo == SIGWINCH) {
            if (relay_)
                relay_->pty().copy_size();
            return;
        }
        to_program_.pass(signo);
        if (signo == SIGTSTP)
            stop_here();
    }

    // The program is in a session of its own, which a terminal's stop key does not reach.
    void stop_here()
    {
        if (relay_)
            relay_->raw().restore();
        ::raise(SIGSTOP);
        if (relay_)
            relay_->raw().set_raw();
    }

    const std::string& id_;
    const SignalQueue& signals_;
    SignalRelay to_program_;
    std::unique_ptr<Relay> relay_;
    Program program_;
};

} // namespace

void SignalRelay::pass(int signo)
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
