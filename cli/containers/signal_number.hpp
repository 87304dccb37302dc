// signal_number.hpp - parses a signal given by the user. Used by kill.
#ifndef ZNC_CLI_CONTAINERS_SIGNAL_NUMBER_HPP
#define ZNC_CLI_CONTAINERS_SIGNAL_NUMBER_HPP

namespace zncctl {

// Converts "KILL", "SIGKILL", "kill" or "9" to the library's signal number; -1 if unknown.
int signal_number(const char* text);

} // namespace zncctl

#endif
