// log_file.hpp - the log of a detached program: a file of limited size, and the previous one.
// Written by the monitor, read by logs and attach.
#ifndef ZNC_CLI_CONTAINERS_LOG_FILE_HPP
#define ZNC_CLI_CONTAINERS_LOG_FILE_HPP

#include <string>
#include <string_view>

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

    int dir_;
    std::size_t max_;
    std::size_t size_ = 0;
    znc::UniqueFd file_;
};

class LogReader {
  public:
    // Starts at the oldest byte available or, with `at_end`, at the end.
    LogReader(int dir, bool at_end);

    // Returns what was added since the last call; "" if nothing.
    std::string read();

  private:
    std::string read_to_end();

    int dir_;
    znc::UniqueFd file_;
};

} // namespace zncctl

#endif
