#include "monitor.hpp"

#include "front/files.hpp"
#include "front/output.hpp"
#include "front/words.hpp"
#include "log_file.hpp"
#include "program.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr std::size_t kLogMax = 1024 * 1024;
constexpr std::size_t kLogMaxLeast = 1024;

struct Pipe {
    znc::UniqueFd reader;
    znc::UniqueFd writer;

    Pipe()
    {
        std::array<int, 2> ends = {-1, -1};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            return;
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
};

// Nothing of the caller's stays open, least of all a terminal or a pipe that someone reads to its
// end. `report` becomes descriptor 3.
void leave_caller(znc::UniqueFd& report)
{
    constexpr int kReport = 3;
    ::setsid();
    if (report.get() != kReport) {
        ::dup3(report.get(), kReport, O_CLOEXEC);
        report.reset(kReport);
    }
    ::closefrom(kReport + 1);
    const znc::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = 0; fd < kReport; fd++)
        ::dup2(null.get(), fd);
    if (::chdir("/") != 0)
        errno = 0; // a directory in use is all that comes of it
    ::umask(077);
    // Progress texts are no output of the program.
    ::setenv("ZNC_VERBOSE", "0", 1); // NOLINT(concurrency-mt-unsafe): there is one thread
}

class Monitor {
  public:
    Monitor(const std::string& id, std::size_t log_max) : id_(id), log_max_(log_max) {}

    void run(znc::UniqueFd report)
    {
        const SignalQueue signals;
        const RecordKeeper record = RecordKeeper::begin(id_);
        const int error = record ? start(record) : errno;
        if (error != 0 && record)
            remove_record(id_);
        static_cast<void>(
            write_all(report.get(), {reinterpret_cast<const char*>(&error), sizeof error}));
        report.reset();
        if (error == 0)
            serve(record, signals);
    }

  private:
    int start(const RecordKeeper& record)
    {
        Pipe output;
        // Not to wait for bytes: the container can open its end for reading and take them away.
        if (!output.reader || ::fcntl(output.reader.get(), F_SETFL, O_NONBLOCK) != 0)
            return errno;
        log_.emplace(record.dir(), log_max_); // who is told that the program runs finds it
        const int writer = output.writer.get();
        if (const int error = program_.start(id_, {kNullDevice, writer, writer}); error != 0)
            return error;
        output_ = std::move(output.reader);
        known_ = describe(program_, true);
        record.write(known_);
        return 0;
    }

    // Ends when the program has ended and nothing in the container holds its output open.
    void serve(const RecordKeeper& record, const SignalQueue& signals)
    {
        while (!known_.exit_code || output_) {
            if (const auto& status = program_.look(); status && !known_.exit_code) {
                take_rest(); // who sees the exit code finds the output
                known_.exit_code = status;
                known_.exited = time_text(std::time(nullptr));
                record.write(known_);
                continue;
            }
            std::array<pollfd, 1> wanted = {pollfd{output_.get(), POLLIN, 0}};
            signals.wait(wanted);
            while (signals.next()) { // none of them is the monitor's
            }
            if (wanted[0].revents != 0)
                take_output(buffer_.size());
        }
    }

    // The number of bytes taken, 0 when there are none for now.
    std::size_t take_output(std::size_t most)
    {
        const ssize_t n = ::read(output_.get(), buffer_.data(), std::min(most, buffer_.size()));
        if (n > 0)
            log_->append({buffer_.data(), static_cast<std::size_t>(n)});
        else if (n == 0 || (errno != EINTR && errno != EAGAIN))
            output_.reset();
        return n > 0 ? static_cast<std::size_t>(n) : 0;
    }

    // What was there when the program ended: what it left behind may go on writing without end.
    void take_rest()
    {
        int there = 0;
        if (!output_ || ::ioctl(output_.get(), FIONREAD, &there) != 0)
            return;
        for (auto left = static_cast<std::size_t>(there); left > 0;) {
            const std::size_t taken = take_output(left);
            if (taken == 0)
                return;
            left -= taken;
        }
    }

    std::string id_;
    std::size_t log_max_;
    Program program_;
    Record known_;
    znc::UniqueFd output_;
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
    if (!number || *number < kLogMaxLeast) {
        usage_failure(std::string("a log has at least 1024 bytes, not '") + text + "'");
        return false;
    }
    limit = *number;
    return true;
}

int start_with_monitor(const std::string& id, std::size_t log_max)
{
    if (const int error = startable(id); error != 0)
        return error;
    Pipe report;
    if (!report.reader)
        return errno;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        return errno;
    if (pid == 0) {
        report.reader.reset();
        leave_caller(report.writer);
        try {
            Monitor(id, log_max).run(std::move(report.writer));
        } catch (const std::exception&) { // there is nobody to tell
            ::_exit(kExitFailure);
        }
        ::_exit(kExitOk);
    }
    report.writer.reset();
    int error = -1;
    while (::read(report.reader.get(), &error, sizeof error) < 0 && errno == EINTR) {
    }
    return error;
}

} // namespace zncctl
