// log_file.hpp - the log of a program: a file of limited size, and the previous one.
// Beside each is a file of the times at which its parts were written. Written by the monitor or the
// command in the foreground, read by logs and attach.
#ifndef ZNC_CLI_CONTAINERS_LOG_FILE_HPP
#define ZNC_CLI_CONTAINERS_LOG_FILE_HPP

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

class LogFile {
  public:
    // `dir` is the directory of a record; it must stay open during the life of the object.
    LogFile(int dir, std::size_t max);

    // Bytes that cannot be written are dropped: a full disk must not block the program.
    void append(std::string_view bytes);

  private:
    void open_new();
    void note_time();

    int dir_;
    std::size_t max_;
    std::size_t size_ = 0;
    std::int64_t noted_ = 0; // the last time, in milliseconds
    znc::UniqueFd file_;
    znc::UniqueFd times_;
};

// A part of a log that was written at one time.
struct LogPart {
    std::int64_t time; // nanoseconds since the epoch
    std::string text;
};

class LogReader {
  public:
    // Starts at the oldest byte available or, with `at_end`, at the end.
    LogReader(int dir, bool at_end);

    // Returns what was added since the last call; "" if nothing.
    std::string read();
    // The same with times, which are exact to a millisecond.
    std::vector<LogPart> read_parts();

  private:
    // A position in the log, and the time at which what follows was written.
    struct Time {
        std::uint64_t offset;
        std::int64_t time;
    };
    friend class LogFile;

    template <class Take> void read_files(Take take);
    void open_times(const char* name);
    void add_parts(std::string_view text, std::vector<LogPart>& parts);

    int dir_;
    znc::UniqueFd file_;
    znc::UniqueFd times_;
    Time last_ = {0, 0};
    std::vector<Time> next_; // times already read whose log text has not been read yet
    std::uint64_t offset_ = 0;
};

} // namespace zncctl

#endif
