#include "monitor.hpp"

#include "attach_channel.hpp"
#include "container.hpp"
#include "detached.hpp"
#include "events.hpp"
#include "front/output.hpp"
#include "front/words.hpp"
#include "log_file.hpp"
#include "network.hpp"
#include "pause.hpp"
#include "program.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr std::size_t kLogMax = 1024 * 1024;
constexpr std::size_t kLogMaxMin = 1024;

class Monitor {
  public:
    Monitor(const std::string& id, const MonitorOptions& options)
        : id_(id), options_(options), events_(id)
    {
    }

    const ProgramLink& use_link(ProgramLink link, Pty terminal)
    {
        link_ = std::move(link);
        terminal_.emplace(std::move(terminal));
        return link_;
    }

    void run(const std::function<void(int error)>& report)
    {
        const SignalQueue signals;
        const RecordKeeper record = RecordKeeper::begin(id_);
        const int error = record ? start(record) : errno;
        if (error != 0 && record)
            remove_record(id_);
        report(error);
        if (error != 0)
            return;
        serve(record, signals);
        if (options_.remove) {
            Program::leave_others();
            static_cast<void>(delete_container(id_, true)); // there is nowhere to report a failure
        }
    }

  private:
    int start(const RecordKeeper& record)
    {
        ProgramStreams streams = {kNullDevice, kNullDevice, kNullDevice};
        Pipe output;
        Pipe input;
        if (options_.tty ? !use_terminal(streams) : !make_pipes(streams, output, input))
            return errno;
        log_.emplace(record.dir(), options_.log_max); // must exist once the start is reported
        if (const int error = program_.start(id_, streams); error != 0)
            return error;
        if (terminal_)
            terminal_->close_user();
        else
            output_ = std::move(output.reader);
        input_ = std::move(input.writer);
        if (input_ && ::fcntl(input_.get(), F_SETFL, O_WRONLY | O_NONBLOCK) != 0)
            return errno;
        program_record_ = describe(program_, true);
        program_record_.tty = options_.tty;
        if (options_.interactive)
            channel_.emplace(record.dir());
        record.write(program_record_);
        events_.note(kStartEvent);
        return 0;
    }

    bool make_pipes(ProgramStreams& streams, Pipe& output, Pipe& input)
    {
        output = make_pipe();
        // Non-blocking: a process in the container can open the reading end through /proc and take
        // the bytes between poll and read.
        if (!output.reader || ::fcntl(output.reader.get(), F_SETFL, O_NONBLOCK) != 0)
            return false;
        streams = {kNullDevice, output.writer.get(), output.writer.get()};
        if (!options_.interactive)
            return true;
        input = make_pipe();
        streams[STDIN_FILENO] = input.reader.get();
        return static_cast<bool>(input.reader);
    }

    bool use_terminal(ProgramStreams& streams)
    {
        if (!terminal_)
            terminal_.emplace(namespace_of(id_), user_of_program(id_));
        if (!*terminal_)
            return false;
        streams.fill(terminal_->user());
        output_.reset(::fcntl(terminal_->master(), F_DUPFD_CLOEXEC, 3)); // non-blocking, too
        return static_cast<bool>(output_);
    }

    // Returns when the program has ended, the command in the foreground has left and, unless the
    // container is to be deleted, no process in it has its output open.
    void serve(const RecordKeeper& record, const SignalQueue& signals)
    {
        while (!program_record_.exit_code || link_ || (output_ && !options_.remove)) {
            if (const auto& status = program_.look(); status && !program_record_.exit_code) {
                note_end_of_program(record, *status);
                continue;
            }
            std::array<pollfd, 3> wanted = {pollfd{link_ ? -1 : output_.get(), POLLIN, 0},
                                            input_wanted(), pollfd{link_.fd(), POLLIN, 0}};
            signals.wait(wanted);
            while (signals.next()) { // signals other than SIGCHLD are ignored
            }
            if (wanted[0].revents != 0)
                read_output(buffer_.size());
            if (wanted[1].revents != 0)
                pass_input();
            if (wanted[2].revents != 0)
                hear_command();
        }
    }

    void note_end_of_program(const RecordKeeper& record, int status)
    {
        if (!link_)
            read_rest(); // the log must be complete when the exit code appears
        note_end(program_record_, id_, status);
        events_.note(kDiedEvent, program_record_.exit_code); // see RemoveEvent
        record.write(program_record_);
        end_network_of_stopped(id_);
        if (link_)
            link_.send(LinkMessage::kEnded, status);
    }

    // What the command in the foreground sends.
    void hear_command()
    {
        if (const auto message = link_.receive(false)) {
            if (message->kind == LinkMessage::kOutput)
                log_->append(message->data);
        } else if (errno != EAGAIN) {
            options_.remove = options_.remove && !program_record_.exit_code;
            link_.send(LinkMessage::kTakenOver, 0);
            link_.close();
        }
    }

    // The descriptor that input is written to: the master of the terminal, or a pipe.
    [[nodiscard]] int input_end() const { return terminal_ ? terminal_->master() : input_.get(); }

    // What to poll for: room for pending input, or new input.
    [[nodiscard]] pollfd input_wanted() const
    {
        if (!waiting_.empty())
            return {input_end(), POLLOUT, 0};
        return {channel_ && *channel_ ? channel_->fd() : -1, POLLIN, 0};
    }

    void pass_input()
    {
        if (waiting_.empty())
            receive();
        while (!waiting_.empty()) {
            const ssize_t n = ::write(input_end(), waiting_.data(), waiting_.size());
            if (n < 0 && (errno == EAGAIN || errno == EINTR))
                return;
            // If the program has closed its input, pending input is lost.
            waiting_.erase(0, n < 0 ? waiting_.size() : static_cast<std::size_t>(n));
        }
        if (ended_)
            end_input();
    }

    void receive()
    {
        const auto message = channel_->next();
        if (!message)
            return;
        if (const auto size = size_in(*message); size && terminal_)
            terminal_->set_size((*size)[0], (*size)[1]);
        if (message->kind == AttachMessage::kInput)
            waiting_.assign(message->data.data(), message->length);
        ended_ = message->kind == AttachMessage::kEndOfInput && !terminal_;
    }

    // The program sees the end of its input. Input that arrives later is discarded.
    void end_input()
    {
        input_.reset();
        channel_.reset();
    }

    // Returns the number of bytes read, 0 if there are none now.
    std::size_t read_output(std::size_t most)
    {
        const ssize_t n = ::read(output_.get(), buffer_.data(), std::min(most, buffer_.size()));
        if (n > 0)
            log_->append({buffer_.data(), static_cast<std::size_t>(n)});
        else if (n == 0 || (errno != EINTR && errno != EAGAIN))
            output_.reset();
        return n > 0 ? static_cast<std::size_t>(n) : 0;
    }

    // Reads only what had been written when the program ended: processes that it left behind may go
    // on writing for ever. A terminal does not say how much that is, only whether there is more.
    void read_rest()
    {
        constexpr std::size_t kTerminalRest = 256 * 1024; // more than it holds
        int available = 0;
        if (!output_ || (!terminal_ && ::ioctl(output_.get(), FIONREAD, &available) != 0))
            return;
        std::size_t left = terminal_ ? kTerminalRest : static_cast<std::size_t>(available);
        while (left > 0 && has_output()) {
            const std::size_t taken = read_output(left);
            if (taken == 0)
                return;
            left -= taken;
        }
    }

    // For a terminal, poll() makes the kernel process what was written to it.
    [[nodiscard]] bool has_output() const
    {
        pollfd output = {output_.get(), POLLIN, 0};
        return ::poll(&output, 1, 0) == 1;
    }

    std::string id_;
    MonitorOptions options_;
    ContainerEvents events_;
    Program program_;
    Record program_record_;
    ProgramLink link_; // to the command in the foreground; while it is open that reads the output
    znc::UniqueFd output_;
    znc::UniqueFd input_; // of a program without a terminal
    std::optional<AttachReceiver> channel_;
    std::string waiting_;         // input that the program has not taken yet
    bool ended_ = false;          // its input has ended
    std::optional<Pty> terminal_; // its output is output_
    std::optional<LogFile> log_;
    std::array<char, 65536> buffer_;
};

} // namespace

bool log_limit(const Arguments& args, std::size_t& limit)
{
    limit = kLogMax;
    const char* text = args.value("log-max");
    if (text == nullptr)
        return true;
    const auto number = to_number<std::size_t>(text);
    if (!number || *number < kLogMaxMin) {
        usage_failure(std::string("--log-max must be at least 1024 bytes, not '") + text + "'");
        return false;
    }
    limit = *number;
    return true;
}

int start_with_monitor(const std::string& id, const MonitorOptions& options)
{
    if (const int error = options.created ? 0 : startable(id); error != 0)
        return error;
    return run_detached([&](znc::UniqueFd report) {
        Monitor(id, options).run([&](int error) { report_start(std::move(report), error); });
    });
}

void host_program(const std::string& id, const MonitorOptions& options, ProgramLink link,
                  Pty terminal)
{
    Monitor monitor(id, options);
    const ProgramLink& reports = monitor.use_link(std::move(link), std::move(terminal));
    monitor.run([&](int error) { reports.send(LinkMessage::kStarted, error); });
}

} // namespace zncctl
