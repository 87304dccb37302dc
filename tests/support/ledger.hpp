// ledger.hpp - records everything that a system test must leave unchanged: mounts, namespaces,
// processes, zombies, queues, files and the daemon's descriptors. A test takes one ledger before
// and one after, and compares them.
#ifndef LEDGER_HPP
#define LEDGER_HPP

#include <map>
#include <string>
#include <sys/types.h>

class Ledger {
  public:
    // Records all files below `storage`, besides /overlay and the namespace records.
    static Ledger take(const std::string& storage, pid_t daemon);

    // Returns a line for each thing that was added or removed; "" if nothing changed.
    [[nodiscard]] std::string compared_with(const Ledger& before) const;

  private:
    std::map<std::string, std::string> entries_;
};

#endif
