// ledger.hpp - what a system test must leave as it found it: mounts, namespaces, processes,
// zombies, queues, files and the daemon's descriptors. A test takes one before and one after, and
// compares.
#ifndef LEDGER_HPP
#define LEDGER_HPP

#include <map>
#include <string>
#include <sys/types.h>

class Ledger {
  public:
    // Directories whose whole content counts, besides /overlay and the namespace records.
    static Ledger take(const std::string& storage, pid_t daemon);

    // One line per thing that is there now and was not before, or the other way round; empty: all
    // as it was.
    [[nodiscard]] std::string compared_with(const Ledger& before) const;

  private:
    std::map<std::string, std::string> entries_;
};

#endif
