// parse.hpp - parses the words after a command's name into its options and operands. Has no side
// effects: prints nothing and does not exit. Used by zncctl and zncctl-import.
//
// Options may appear anywhere after the command's name, up to "--". Short flags can be combined
// ("-af"); a value can be attached ("-sKILL", "--signal=KILL") or be the next word. A command with
// an option for a signal also takes "-KILL" and "-9".
#ifndef ZNC_FRONT_PARSE_HPP
#define ZNC_FRONT_PARSE_HPP

#include "command.hpp"

namespace zncctl {

struct Parsed {
    Arguments args;
    bool help = false;   // --help or -h was given; nothing else was checked
    std::string problem; // if not empty, what is wrong with the arguments
    std::string hint;    // what may have been meant; "" if nothing is similar
};

// `words` are those after the command's name.
Parsed parse(const Command& command, std::span<char* const> words);

} // namespace zncctl

#endif
