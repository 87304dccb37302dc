// container.hpp - creating, starting and removing containers. Shared by the commands.
#ifndef ZNC_OCI_CONTAINER_HPP
#define ZNC_OCI_CONTAINER_HPP

#include "bundle.hpp"
#include "console.hpp"
#include "ready.hpp"

#include <csignal>
#include <optional>

namespace zncrun {

// Creates the container that `args` describe (create, run): the id is the first operand. `console`
// becomes its terminal.
Container create_container(const Context& context, const Arguments& args,
                           std::optional<Console>& console, Console::Place place);

struct Started {
    ZN_ENGINE_PROCESS process = {};
    ReadySocket ready;
};

// If `signals` is given, the signals to be forwarded are blocked just before the program starts,
// and stored there. Before that a signal that would end this process ends the hook that runs, and
// this call fails.
Started start_container(const Context& context, const std::string& id, sigset_t* signals = nullptr);

// Kills the container if it runs, and removes its cgroup, scope and state directory.
void remove_container(const Context& context, StateDirectory& directory);

// The file of --pid-file; null without one. Fails if something else than a regular file has the
// path, which write_pid_file() would replace.
const char* pid_file_of(const Arguments& args);

// Writes the process id for an engine that waits for the file: it is never seen incomplete.
void write_pid_file(const char* path, pid_t pid);

// How many descriptors from 3 up the program gets: those of --preserve-fds, and the sockets that a
// service manager has opened for it (LISTEN_FDS).
int preserved_descriptors(const Arguments& args);

// Writes to the standard output.
void print(const std::string& text);

} // namespace zncrun

#endif
