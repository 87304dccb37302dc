#include "monitor.hpp"

#include "files.hpp"
#include "log_file.hpp"
#include "output.hpp"
#include "program.hpp"
#include "words.hpp"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <poll.h>
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
        if (!output.reader)
            return errno;
        program_ = start_program(id_, {STDIN_FILENO, output.writer.get(), output.writer.get()});
        if (program_.error != 0)
            return program_.error;
        output_ = std::move(output.reader);
        known_ = describe(program_, true);
        record.write(known_);
        return 0;
    }

    // Ends when the program has ended and nothing in the container holds its output open.
    void serve(const RecordKeeper& record, const SignalQueue& signals)
    {
        LogFile log(record.dir(), log_max_);
        while (!known_.exit_code || output_) {
            std::array<pollfd, 1> wanted = {pollfd{output_.get(), POLLIN, 0}};
            if (!known_.exit_code && (known_.exit_code = program_ended(program_))) {
                take_rest(log); // who sees the exit code finds the output
                known_.exited = time_text(std::time(nullptr));
                record.write(known_);
                continue;
            }
            signals.wait(wanted);
            while (signals.next()) { // none of them is the monitor's
            }
            if (wanted[0].revents != 0)
                take_output(log);
        }
    }

    bool take_output(LogFile& log)
    {
        std::array<char, 16384> buffer{};
        const ssize_t n = ::read(output_.get(), buffer.data(), buffer.size());
        if (n > 0)
            log.append({buffer.data(), static_cast<std::size_t>(n)});
        else if (n == 0 || errno != EINTR)
            output_.reset();
        return n > 0;
    }

    void take_rest(LogFile& log)
    {
        pollfd wanted = {output_.get(), POLLIN, 0};
        while (output_ && ::poll(&wanted, 1, 0) == 1 && take_output(log)) {
        }
    }

    std::string id_;
    std::size_t log_max_;
    Program program_;
    Record known_;
    znc::UniqueFd output_;
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
