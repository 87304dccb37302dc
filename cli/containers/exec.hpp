// exec.hpp - starts another program in a running container. Used by the command exec.
#ifndef ZNC_CLI_CONTAINERS_EXEC_HPP
#define ZNC_CLI_CONTAINERS_EXEC_HPP

#include "cli/terminal/terminal.hpp"
#include "environment.hpp"
#include "program.hpp"
#include "user_lookup.hpp"

#include <optional>
#include <string>
#include <vector>

#include "zarnel/types.h"
#include "zncontainer.h"

namespace zncctl {

// A running container that a program can be started in.
class RunningContainer {
  public:
    // Nullopt, after printing a message, if the container is not running or its configuration
    // cannot be read; `status` is then the exit status.
    static std::optional<RunningContainer> find(const std::string& id, int& status);

    [[nodiscard]] const std::string& id() const { return id_; }
    [[nodiscard]] nsid_t ns() const { return ns_; }
    [[nodiscard]] int root() const { return root_.get(); }
    [[nodiscard]] const std::string& root_path() const { return root_path_; } // on the host
    // As configured when the container was created.
    [[nodiscard]] const std::vector<std::string>& environment() const { return environment_; }
    [[nodiscard]] const std::string& directory() const { return directory_; }
    // The home directory of the user that the container's own program runs as; "/" if unknown.
    [[nodiscard]] std::string home() const;

  private:
    explicit RunningContainer(std::string id) : id_(std::move(id)) {}
    int open();
    // STATE_UNKNOWN after printing a message.
    CONTAINER_STATUS read_configuration();

    std::string id_;
    nsid_t ns_ = -1;
    znc::UniqueFd root_;
    std::string root_path_;
    std::vector<std::string> environment_;
    std::string directory_;
};

struct ExecProgram {
    std::vector<std::string> words; // the command and its arguments
    Environment environment;
    std::string directory;    // absolute, in the container
    std::optional<User> user; // none: the container's own
};

// Starts the program as a child of this process. Returns 0, or the errno value of the failure.
int start_exec(const RunningContainer& container, ExecProgram& wanted, Program& program,
               const ProgramStreams& streams);

// Starts the program without streams, and a process that waits for it. Returns like start_exec().
int start_exec_detached(const RunningContainer& container, ExecProgram& wanted);

// Starts the program on the terminal, reports to the other end of the link and waits for the
// program. When the link is at its end, the program's output is dropped. To be called in a process
// of its own.
void host_exec(const RunningContainer& container, ExecProgram& wanted, ProgramLink link,
               Pty terminal);

// Prints the message for a failed start; returns the exit status.
int exec_failure(const RunningContainer& container, const ExecProgram& wanted, int error);

} // namespace zncctl

#endif
