// follow.hpp - prints the output of a program as it arrives. Used by logs and attach.
#ifndef ZNC_CLI_CONTAINERS_FOLLOW_HPP
#define ZNC_CLI_CONTAINERS_FOLLOW_HPP

#include "log_file.hpp"

#include <functional>

namespace zncctl {

// Opens the record of a container that has a log. Returns kExitOk, or another exit status after
// printing a message.
int open_log_of(const std::string& id, znc::UniqueFd& dir);

// Prints the new output that `read` returns until there can be no more, and calls `meanwhile` (may
// be null) after each call of `read`. False with errno set if writing fails.
bool follow(int dir, const std::function<std::string()>& read,
            const std::function<void()>& meanwhile);

} // namespace zncctl

#endif
