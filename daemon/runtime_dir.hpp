// runtime_dir.hpp - the daemon's directory and the lock that makes it the only one. Used by main.
#ifndef ZNCD_RUNTIME_DIR_HPP
#define ZNCD_RUNTIME_DIR_HPP

#include "zarnel/daemon_file.h"
#include "zarnel/owned.hpp"

namespace zncd {

inline constexpr const char* kRuntimeDir = ZN_RUNTIME_DIR; // root's alone, mode 0700

// Makes the directory, takes the lock in it for the life of the result, and writes down who has it.
// Invalid when the lock cannot be had; why not (who holds it) was then printed. A full file system
// is a warning.
znc::UniqueFd take_lock(const char* version);

} // namespace zncd

#endif
