// id_prefix.hpp - beginnings of container ids as operands. Only ids that zncctl has made up, 12
// hexadecimal digits, may be shortened, to 4 digits at least: names select exactly. Used by main.
#ifndef ZNC_CLI_CONTAINERS_ID_PREFIX_HPP
#define ZNC_CLI_CONTAINERS_ID_PREFIX_HPP

#include "front/command.hpp"

namespace zncctl {

// Completes the ids among the operands of a command. What selects no container stays. Returns
// kExitOk, or another exit status after a message if several containers are meant.
int complete_ids(const Command& command, Arguments& args);

} // namespace zncctl

#endif
