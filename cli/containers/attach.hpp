// attach.hpp - follows a detached program: prints its output, forwards signals, and passes input on
// if the program takes it. Used by attach.
#ifndef ZNC_CLI_CONTAINERS_ATTACH_HPP
#define ZNC_CLI_CONTAINERS_ATTACH_HPP

#include "cli/terminal/detach_keys.hpp"
#include "front/command.hpp"

#include <optional>
#include <string>

namespace zncctl {

struct AttachOptions {
    DetachKeys keys;
    bool signals = true; // forward those that zncctl receives
    bool input = true;   // pass standard input on
};

// Reads the option --detach-keys, which has a default. Nullopt after printing a message.
std::optional<DetachKeys> read_detach_keys(const Arguments& args);

// Returns the exit status of the program, or of a failure; kExitOk after the keys were typed.
int attach_to(const std::string& id, AttachOptions options);

} // namespace zncctl

#endif
