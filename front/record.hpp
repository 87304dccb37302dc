// record.hpp - what is known of a container's program beyond what the daemon knows: when it was
// started and ended, its exit code, its log. Each container has a directory of its id below the
// runtime directory. Who started the program keeps it, and holds its lock as long as there is
// something to be added: that tells a program that runs from one whose keeper was killed.
#ifndef ZNC_FRONT_RECORD_HPP
#define ZNC_FRONT_RECORD_HPP

#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

struct Record {
    pid_t keeper = 0;
    pid_t program = 0;
    std::string pid_namespace; // as znProcessNamespace names it
    bool logged = false;       // its output is in a log
    std::string started;       // RFC 3339
    std::optional<int> exit_code;
    std::string exited;
};

// The time as RFC 3339 has it, in UTC.
std::string time_text(std::time_t time);

class RecordKeeper {
  public:
    // Begins a container's record anew, and waits a little for whoever keeps an old one. Invalid
    // with errno set, EBUSY when the old one is still kept.
    static RecordKeeper begin(const std::string& id);

    explicit operator bool() const { return static_cast<bool>(lock_); }
    [[nodiscard]] int dir() const { return dir_.get(); }

    // Nobody but this keeper depends on it being written: what cannot be is lost.
    void write(const Record& record) const;

  private:
    znc::UniqueFd dir_;
    znc::UniqueFd lock_;
};

// The directory of a container's record. Invalid with errno set, ENOENT when there is none.
znc::UniqueFd open_record(const std::string& id);

std::optional<Record> read_record(int dir);
std::optional<Record> read_record(const std::string& id);

// Whether its keeper lives.
bool record_is_kept(int dir);

// The containers that have a record, also those that are no more.
std::vector<std::string> recorded_ids();

// Without a record nothing happens.
void remove_record(const std::string& id);

inline constexpr const char* kLogName = "log";
inline constexpr const char* kOldLogName = "log.1";

} // namespace zncctl

#endif
