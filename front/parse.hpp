// parse.hpp - the words behind a command's name as its options and operands. Pure: prints nothing,
// ends nothing. Used by zncctl and zncctl-import.
//
// Options may stand anywhere behind the command's name; "--" ends them. Short flags may be joined
// ("-af"), values may be joined ("-sKILL", "--signal=KILL") or be the next word.
#ifndef ZNC_FRONT_PARSE_HPP
#define ZNC_FRONT_PARSE_HPP

#include "command.hpp"

namespace zncctl {

struct Parsed {
    Arguments args;
    bool help = false;   // --help or -h was given: nothing else was checked
    std::string problem; // not empty: what is wrong with the arguments
};

// The words behind the command's name.
Parsed parse(const Command& command, std::span<char* const> words);

} // namespace zncctl

#endif
