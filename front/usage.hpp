// usage.hpp - texts generated from the description of a command: usage line, help text, and
// synopsis for the manual page.
#ifndef ZNC_FRONT_USAGE_HPP
#define ZNC_FRONT_USAGE_HPP

#include "command.hpp"

namespace zncctl {

// "usage: zncctl kill [OPTION...] ID...\n"; the help text lists the options.
std::string usage_line(const Command& command);
std::string help_text(const Command& command);

// The synopsis for a manual page in scdoc format, one line: "*zncctl kill* [*-s*|*--signal* _SIG_]
// ... _ID_...".
std::string synopsis(const Command& command);
// The synopsis, the description and the options, for the page that lists all commands.
std::string manual_entry(const Command& command);

// A line of a help text: `left`, padded to `width` columns, and `right`.
std::string table_row(const std::string& left, const char* right, std::size_t width);

} // namespace zncctl

#endif
