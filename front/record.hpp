// record.hpp - information on a container's program that the daemon does not have: when it was
// started and ended, its exit code, its log. Each container has a directory named by its id below
// the runtime directory. The zncctl process that started the program (or its monitor) keeps the
// record: it writes the record and holds its lock until the record is complete. If there is no exit
// code, the lock shows whether the program is still running or the process that kept the record was
// killed. (Not to be confused with the container's keeper, its process 1.)
#ifndef ZNC_FRONT_RECORD_HPP
#define ZNC_FRONT_RECORD_HPP

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

struct Record {
    pid_t keeper = 0;
    pid_t program = 0;
    std::string pid_namespace; // as returned by znProcessNamespace
    bool logged = false;       // its output goes to a log
    bool tty = false;          // it has a pseudo-terminal
    std::string started;       // RFC 3339
    std::optional<int> exit_code;
    std::string exited;
    bool out_of_memory = false; // killed because the memory limit was reached
};

class RecordKeeper {
  public:
    // Starts a new record for a container, deleting the old one. Waits up to 10 seconds for the
    // process that keeps the old record. Invalid with errno set, EBUSY if the old record is still
    // being kept.
    static RecordKeeper begin(const std::string& id);

    explicit operator bool() const { return static_cast<bool>(lock_); }
    [[nodiscard]] int dir() const { return dir_.get(); }

    // Writes the record; errors are ignored, since the program must run even if the record cannot
    // be written.
    void write(const Record& record) const;

  private:
    znc::UniqueFd dir_;
    znc::UniqueFd lock_;
};

// Opens the directory of a container's record. Invalid with errno set, ENOENT if there is none.
znc::UniqueFd open_record(const std::string& id);

std::optional<Record> read_record(int dir);
std::optional<Record> read_record(const std::string& id);

// Whether a process still keeps the record, so that it may change.
bool record_is_kept(int dir);

// Gets the exit code of a program whose record may be removed as soon as it ends: the lock file,
// which also contains the exit code, is kept open.
class RecordEnd {
  public:
    explicit RecordEnd(int dir);
    explicit operator bool() const { return static_cast<bool>(lock_); }

    // Nullopt while the program runs, or if its end was not recorded.
    [[nodiscard]] std::optional<int> exit_code() const;

  private:
    znc::UniqueFd lock_;
};

// Opens a directory of this name in the runtime directory, for data about several containers; with
// `make` it is created if it does not exist. Invalid with errno set.
znc::UniqueFd open_runtime_area(const char* name, bool make);

// The ids of all containers that have a record, including containers that no longer exist.
std::vector<std::string> recorded_ids();

// Deletes a container's record; does nothing if there is none. The files of the container's network
// stay until the network has ended.
void remove_record(const std::string& id);

// The process that runs a container's network holds the reading end of a FIFO in the record's
// directory. It ends the network when something is written, and by itself with the container.
//
// Creates the FIFO and opens its reading end; replaces an old one. Invalid with errno set.
znc::UniqueFd make_network_end(const std::string& id);

// The network of a container, if it has one.
class NetworkEnd {
  public:
    explicit NetworkEnd(const std::string& id);
    explicit operator bool() const { return static_cast<bool>(writer_); }

    // Asks the network to end.
    void ask() const;
    // Waits up to 10 seconds for its end. False if it has not ended.
    [[nodiscard]] bool wait() const;

  private:
    znc::UniqueFd dir_;
    znc::UniqueFd writer_; // invalid: there is no network
};

// Where a detached program gets input from; see attach_channel.hpp of zncctl.
inline constexpr const char* kInputName = "input";
inline constexpr const char* kLogName = "log";
inline constexpr const char* kOldLogName = "log.1";
inline constexpr const char* kLogTimesName = "log.times";
inline constexpr const char* kOldLogTimesName = "log.1.times";

} // namespace zncctl

#endif
