// runtime_dir.hpp - the daemon's directory and the lock that makes it the only one. Used by main.
#ifndef ZNCD_RUNTIME_DIR_HPP
#define ZNCD_RUNTIME_DIR_HPP

#include "base/owned.hpp"
#include "zarnel/daemon_file.h"

namespace zncd {

// Makes the directory, takes the lock in it for the life of the result, and writes down who has it.
// Invalid when the lock cannot be had; why not (who holds it) was then printed. A full file system
// is a warning.
znc::UniqueFd take_lock(const char* version);

} // namespace zncd

#endif
