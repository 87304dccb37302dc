// signal_number.hpp - the signal a user asks for. Used by kill; start has names from the host.
#ifndef ZNC_CLI_CONTAINERS_SIGNAL_NUMBER_HPP
#define ZNC_CLI_CONTAINERS_SIGNAL_NUMBER_HPP

namespace zncctl {

// "KILL", "SIGKILL", "kill" or "9": the system's own number, or -1.
int signal_number(const char* text);

} // namespace zncctl

#endif
