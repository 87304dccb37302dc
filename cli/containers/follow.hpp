// follow.hpp - the output of a detached program as it comes. Used by logs and attach.
#ifndef ZNC_CLI_CONTAINERS_FOLLOW_HPP
#define ZNC_CLI_CONTAINERS_FOLLOW_HPP

#include "log_file.hpp"

#include <functional>

namespace zncctl {

// The record of a container that has a log. kExitOk, or a status after a message.
int open_log_of(const std::string& id, znc::UniqueFd& dir);

// Prints what comes until the container's output has ended, calling `meanwhile` (may be null) in
// between. False with errno set when it cannot be printed.
bool follow(int dir, LogReader& reader, const std::function<void()>& meanwhile);

} // namespace zncctl

#endif
