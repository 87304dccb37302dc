// container_options.hpp - what the options of run and create say about a container, apart from its
// image or bundle and its network. Reading them changes nothing; configure.hpp applies them.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_OPTIONS_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_OPTIONS_HPP

#include "front/command.hpp"
#include "front/json.hpp"

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zncctl {

// An option that is used wrongly: what() says how, in one line.
class BadOption : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ContainerOptions { // NOLINT(bugprone-exception-escape): moving a JSON value does not throw
    std::vector<std::string> command;                   // empty: that of the configuration
    std::optional<std::vector<std::string>> entrypoint; // an empty one removes the image's
    std::vector<std::string> environment;               // "NAME=VALUE"; the last of a name counts
    std::string directory;                              // "": as configured, as for the next two
    std::string user;
    std::string host_name;
    Json labels = Json::object();
    Json mounts = Json::array(); // in the format of a configuration
    Json limits = Json::object();
    std::vector<std::string> added_capabilities; // "CAP_CHOWN", or "ALL"
    std::vector<std::string> dropped_capabilities;
    std::optional<bool> no_new_privileges;
    Json seccomp; // a profile of either format; null: none is given
    bool read_only = false;

    // How the program is started, also by a later command.
    bool tty = false;
    bool interactive = false;
    bool remove = false;

    // Whether the options change the configuration that a bundle has.
    [[nodiscard]] bool changes_configuration() const;
};

// Reads the options. `command` are the words of the program. Throws BadOption for wrong use and
// std::runtime_error for a file that cannot be used.
ContainerOptions read_container_options(const Arguments& args, std::vector<std::string> command);

// The same, but prints a message and returns kExitUsage or, for a file, `failed`.
int read_container_options(const Arguments& args, std::vector<std::string> command, int failed,
                           ContainerOptions& options);

// The id that --name gives, else a new one. Throws BadOption.
std::string id_of_new_container(const Arguments& args);

} // namespace zncctl

#endif
