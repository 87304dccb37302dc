// detached.hpp - processes that go on after zncctl has ended and keep nothing of its caller open.
// Used for programs that run detached: a process must stay to wait for them.
#ifndef ZNC_CLI_CONTAINERS_DETACHED_HPP
#define ZNC_CLI_CONTAINERS_DETACHED_HPP

#include <functional>
#include <initializer_list>

#include "base/owned.hpp"

namespace zncctl {

struct Pipe {
    znc::UniqueFd reader;
    znc::UniqueFd writer;
};

// A pipe with close-on-exec ends; without ends, and errno set, on failure.
Pipe make_pipe();

// Runs `body` in a new process with a session of its own, the null device as standard streams and,
// of the caller's other descriptors, only `kept` (greater than 2). Returns 0, or an errno value.
int fork_detached(std::initializer_list<int> kept, const std::function<void()>& body);

// The same with none of the caller's descriptors. Returns what that process passes to
// report_start(): 0 once the program runs, else an errno value; -1 if it ends without a report.
int run_detached(const std::function<void(znc::UniqueFd report)>& body);

void report_start(znc::UniqueFd report, int error);

} // namespace zncctl

#endif
