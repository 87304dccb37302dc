// usage.hpp - texts made from the description of a command: usage line, help, the synopsis of the
// manual page.
#ifndef ZNC_FRONT_USAGE_HPP
#define ZNC_FRONT_USAGE_HPP

#include "command.hpp"

namespace zncctl {

std::string usage_line(const Command& command); // "usage: zncctl kill ...\n"
std::string help_text(const Command& command);

// For a manual page in scdoc: one line, "*zncctl kill* [*-s*|*--signal* _SIG_] ... _ID_...".
std::string synopsis(const Command& command);
// The synopsis, what the command does, and its options, for the page that lists all.
std::string manual_entry(const Command& command);

// A line of a help text: what is typed, and behind `width` columns what it does.
std::string table_row(const std::string& left, const char* right, std::size_t width);

} // namespace zncctl

#endif
