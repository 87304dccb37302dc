// stop_signals.hpp - holds back the signals that end a command until it has removed incomplete
// files. Used by cp.
#ifndef ZNC_CLI_CONTAINERS_STOP_SIGNALS_HPP
#define ZNC_CLI_CONTAINERS_STOP_SIGNALS_HPP

#include "base/not_copied.hpp"

#include <csignal>

namespace zncctl {

// Thrown by check_stop(). Not to be reported as an error: the pending signal then ends the command.
class Stopped {};

// While an object exists, SIGHUP, SIGINT and SIGTERM are blocked, unless they are ignored. The
// destructor lets them act, so that a signal that has arrived ends the process as usual.
class StopSignals : znc::NotCopied {
  public:
    StopSignals();
    ~StopSignals();

  private:
    sigset_t before_ = {};
};

// Throws Stopped if a signal has arrived that an object holds back.
void check_stop();

} // namespace zncctl

#endif
