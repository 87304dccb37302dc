// runtime_dir.hpp - the daemon's directory and the lock that makes it the only one. Used by main.
#ifndef ZNCD_RUNTIME_DIR_HPP
#define ZNCD_RUNTIME_DIR_HPP

#include "zarnel/owned.hpp"

namespace zncd {

inline constexpr const char* kRuntimeDir = "/run/zarnel"; // root's alone, mode 0700

// Makes the directory and takes the lock in it for the life of the result. Invalid when it cannot
// be had; why not (who holds it) was then printed.
znc::UniqueFd take_lock();

} // namespace zncd

#endif
