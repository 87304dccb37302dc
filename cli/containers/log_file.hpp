// log_file.hpp - what a detached program has printed: one file of a limited size, and the one
// before it. Written by the monitor, read by logs and attach.
#ifndef ZNC_CLI_CONTAINERS_LOG_FILE_HPP
#define ZNC_CLI_CONTAINERS_LOG_FILE_HPP

#include <string>
#include <string_view>

#include "base/owned.hpp"

namespace zncctl {

class LogFile {
  public:
    // In the directory of a record, which must outlive it.
    LogFile(int dir, std::size_t max);

    // What cannot be written is lost: the program must not wait for a full disk.
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
    // Begins with the oldest byte that is there, or, with `at_end`, with what is yet to come.
    LogReader(int dir, bool at_end);

    // What has come since the last call; "" when there is nothing at the moment.
    std::string read();

  private:
    std::string read_file_on();

    int dir_;
    znc::UniqueFd file_;
};

} // namespace zncctl

#endif
