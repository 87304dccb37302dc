// signals.hpp - signals as engines write them, and those that a command in the foreground forwards.
#ifndef ZNC_OCI_SIGNALS_HPP
#define ZNC_OCI_SIGNALS_HPP

#include "zarnel/engine.h"

#include <csignal>
#include <string_view>

namespace zncrun {

class Console;
class ReadySocket;

// "15", "TERM", "SIGTERM", "RTMIN+3"; -1 for what is no signal.
int signal_number(std::string_view text);

// Blocks the signals that wait_in_foreground() waits for: those to be forwarded, and SIGCHLD. To be
// called before the program is started.
sigset_t block_forwarded_signals();

// Waits for the program, a child, and forwards signals to it. Its exit status as a shell gives it.
// Connects its terminal, if that is not with the caller's console socket. `ready`: if given, passes
// on that the container is ready.
int wait_in_foreground(const ZN_ENGINE_PROCESS& process, const sigset_t& signals, Console& console,
                       ReadySocket* ready = nullptr);

} // namespace zncrun

#endif
