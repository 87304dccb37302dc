// attach.hpp - follows a detached program: prints its output, forwards signals, and passes input on
// if the program takes it. Used by attach and run.
#ifndef ZNC_CLI_CONTAINERS_ATTACH_HPP
#define ZNC_CLI_CONTAINERS_ATTACH_HPP

#include "cli/terminal/detach_keys.hpp"

#include <string>

namespace zncctl {

struct AttachOptions {
    DetachKeys keys;
    bool signals = true;     // forward those that zncctl receives
    bool input = true;       // pass standard input on
    bool from_start = false; // print what the program has written so far
};

// Reads the option --detach-keys. Nullopt after printing a message.
std::optional<DetachKeys> read_detach_keys(const char* text);

// Returns the exit status of the program, or that of a failure. After the detach keys were typed it
// returns kExitOk and sets `*detached`, unless that is null.
int attach_to(const std::string& id, AttachOptions options, bool* detached = nullptr);

} // namespace zncctl

#endif
