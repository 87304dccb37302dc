#include "attach.hpp"

#include "attach_channel.hpp"
#include "cli/terminal/terminal.hpp"
#include "container.hpp"
#include "follow.hpp"
#include "foreground.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <fmt/format.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

#include "zarnel/watch.h"

namespace zncctl {
namespace {

class Attachment {
  public:
    Attachment(const std::string& id, int record, AttachOptions options)
        : options_(std::move(options)), record_(record), reader_(record, true), relay_(id),
          watch_(znWatchOpen(record)),
          signals_(options_.signals ? std::make_unique<SignalQueue>() : nullptr)
    {
        const auto known = read_record(record);
        const bool tty = known && known->tty;
        if (!options_.input || (tty && ::isatty(STDIN_FILENO) == 0))
            return;
        sender_.emplace(record);
        if (!*sender_)
            sender_.reset();
        if (sender_ && tty) {
            if (!signals_) // no signal may end zncctl while the terminal is in raw mode
                signals_ = std::make_unique<SignalQueue>();
            raw_ = std::make_unique<RawTerminal>();
            send_size();
        }
    }

    // Returns when the program has ended or the keys were typed. False with errno set if the output
    // cannot be written.
    bool run()
    {
        for (;;) {
            if (watch_)
                znWatchClear(watch_.get());
            // Check before reading: then everything that was written before the monitor ended is
            // read.
            const bool still_kept = record_is_kept(record_);
            if (!write_all(STDOUT_FILENO, reader_.read()))
                return false;
            if (!still_kept || detached() || ended_by_ != 0)
                return true;
            wait();
        }
    }

    [[nodiscard]] bool detached() const { return options_.keys.typed(); }
    // The signal because of which following ended; 0: none.
    [[nodiscard]] int ended_by() const { return ended_by_; }
    void restore_terminal() { raw_.reset(); }

  private:
    void wait()
    {
        // A timeout, because the end of the monitor does not change a file, and without a watch new
        // output is not noticed either.
        const timespec pause = {0, watch_ ? 50'000'000 : 20'000'000};
        const bool wanted = sender_ && !sender_->is_full() && !in_background(STDIN_FILENO);
        std::array<pollfd, 2> fds = {pollfd{watch_.get(), POLLIN, 0},
                                     pollfd{wanted ? STDIN_FILENO : -1, POLLIN, 0}};
        if (signals_)
            signals_->wait(fds, &pause);
        else
            ::ppoll(fds.data(), fds.size(), &pause, nullptr);
        if (signals_) // first, so that a change of the size is sent before what is typed after it
            handle_signals();
        if (fds[1].revents != 0)
            read_input();
        if (sender_)
            sender_->flush();
    }

    void read_input()
    {
        std::array<char, 4096> buffer{};
        const ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n > 0) {
            const std::string_view typed(buffer.data(), static_cast<std::size_t>(n));
            sender_->add_input(raw_ ? options_.keys.pass(typed) : std::string(typed));
            return;
        }
        if (n == 0 && !raw_) // not after an error: other processes may send more input
            sender_->add_end();
        sender_->flush();
        sender_.reset();
    }

    void handle_signals()
    {
        while (const auto signo = signals_->next()) {
            if (*signo == SIGWINCH)
                send_size();
            if (*signo == SIGCHLD || *signo == SIGWINCH || *signo == SIGPIPE)
                continue;
            if (options_.signals)
                relay_.forward(*signo);
            else if (*signo == SIGINT || *signo == SIGTERM || *signo == SIGHUP || *signo == SIGQUIT)
                ended_by_ = *signo;
            if (*signo == SIGTSTP)
                stop_self();
        }
        if (raw_)
            raw_->set_raw(); // zncctl may be back in the foreground
    }

    void stop_self()
    {
        if (raw_)
            raw_->lend();
        ::raise(SIGSTOP);
    }

    void send_size()
    {
        winsize size = {};
        if (sender_ && raw_ && ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0)
            sender_->add_size(size.ws_row, size.ws_col);
    }

    AttachOptions options_;
    int record_;
    LogReader reader_;
    SignalRelay relay_;
    znc::UniqueFd watch_;
    std::unique_ptr<SignalQueue> signals_; // declared before raw_, which needs it
    std::optional<AttachSender> sender_;   // none: the program takes no input
    std::unique_ptr<RawTerminal> raw_;
    int ended_by_ = 0;
};

} // namespace

std::optional<DetachKeys> read_detach_keys(const Arguments& args)
{
    const char* text = args.value("detach-keys", kUsualDetachKeys);
    auto keys = DetachKeys::parse(text);
    if (!keys)
        usage_failure(fmt::format("--detach-keys are characters or ctrl-KEY, separated by commas, "
                                  "not '{}'",
                                  printable(text)));
    return keys;
}

int attach_to(const std::string& id, AttachOptions options)
{
    znc::UniqueFd dir;
    if (open_log_of(id, dir) != kExitOk)
        return kExitStartFailed;
    const RecordEnd end(dir.get());
    if (!record_is_kept(dir.get()))
        return failure(id, "it has ended; 'zncctl wait' prints its exit code", kExitStartFailed);
    Attachment attachment(id, dir.get(), std::move(options));
    const bool printed = attachment.run();
    const int error = errno;
    attachment.restore_terminal();
    if (!printed) {
        static_cast<void>(local_failure(error, "standard output"));
        return kExitStartFailed;
    }
    if (attachment.detached())
        return kExitOk;
    if (attachment.ended_by() != 0)
        return kExitSignalBase + attachment.ended_by();
    const auto record = read_record(dir.get()); // gone with --rm
    if (const auto code = record && record->exit_code ? record->exit_code : end.exit_code())
        return *code;
    return failure(id, "its exit code is lost: its monitor was killed", kExitStartFailed);
}

} // namespace zncctl
