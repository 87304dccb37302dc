// usage.hpp - texts made from the table of commands: usage lines, help, the synopsis of the manual
// page, completions. Used by main.cpp and cmd_completion.cpp; a test compares them.
#ifndef ZNCCTL_USAGE_HPP
#define ZNCCTL_USAGE_HPP

#include "command.hpp"

namespace zncctl {

std::string usage_line(const Command& command); // "usage: zncctl kill ...\n"
std::string usage_line();                       // "usage: zncctl COMMAND ...\n"
std::string help_text(const Command& command);
std::string help_text();

// For a manual page in scdoc: one line, "*zncctl kill* [*-s*|*--signal* _SIG_] ... _ID_...".
std::string synopsis(const Command& command);
// The same of all commands, each followed by its options in a list.
std::string manual_text();

std::string bash_completion();
std::string zsh_completion();
std::string fish_completion();

} // namespace zncctl

#endif
