// parse.hpp - from argv to a command of the table and its arguments. Pure: prints nothing, ends
// nothing. Used by main.cpp.
//
// Options may stand anywhere behind the command's name; "--" ends them. Short flags may be joined
// ("-af"), values may be joined ("-sKILL", "--signal=KILL") or be the next word.
#ifndef ZNCCTL_PARSE_HPP
#define ZNCCTL_PARSE_HPP

#include "command.hpp"

namespace zncctl {

struct Found {
    const Command* command = nullptr; // null: no such command
    std::size_t words = 0;            // words of its name
};

// The command that the first words name, by its name or an alias.
Found find_command(std::span<char* const> words);

struct Parsed {
    Arguments args;
    bool help = false;   // --help or -h was given: nothing else was checked
    std::string problem; // not empty: what is wrong with the arguments
};

// The words behind the command's name.
Parsed parse(const Command& command, std::span<char* const> words);

} // namespace zncctl

#endif
