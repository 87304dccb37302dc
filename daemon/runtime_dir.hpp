// runtime_dir.hpp - the runtime directory and the lock that ensures that only one daemon runs. Used
// by main.
#ifndef ZNCD_RUNTIME_DIR_HPP
#define ZNCD_RUNTIME_DIR_HPP

#include "base/owned.hpp"
#include "zarnel/daemon_file.h"

namespace zncd {

// Creates the directory, takes the lock and records the daemon's identity. The lock is held until
// the result is destroyed. Invalid if the lock cannot be taken; the reason (with the process id of
// the other daemon) is logged. If the file system is full, only a warning is logged.
znc::UniqueFd take_lock(const char* version);

} // namespace zncd

#endif
