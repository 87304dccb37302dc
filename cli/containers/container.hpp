// container.hpp - requests to the daemon that several commands share, and the loop of commands that
// take several container ids.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_HPP

#include "front/command.hpp"
#include "front/escape.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <optional>
#include <sys/types.h>

#include "zncontainer.h"

namespace zncctl {

struct Network;
struct NewBundle;

// The state document; empty with errno as zncState sets it.
std::optional<Json> state_of(const std::string& id);

// The status of a container. STATE_UNKNOWN with errno set if there is no such container or no
// daemon. The daemon notices that a container has ended only when its state or the list is
// requested.
CONTAINER_STATUS status_of(const std::string& id);

// The number of the user that the container's program runs as, in the container.
uid_t user_of_program(const std::string& id);

// The root directory that a bundle's config.json names, as a host path; "" if it names none.
std::string root_of_bundle(const std::string& bundle);

// The state documents of all containers, as an array; empty with errno set if the daemon sends no
// list. If the list does not fit into one reply, asks for the state of each container.
std::optional<Json> all_states();

// The ids of all containers, or of those with this status; nullopt with errno set if the daemon
// sends no list.
std::optional<std::vector<std::string>>
all_ids(std::optional<CONTAINER_STATUS> status = std::nullopt);

// Creates a container from a bundle and connects its network. Returns kExitOk, or another exit
// status after printing a message; then neither the container nor a bundle made for it remains.
// Releases the locks that keep other processes from using the bundle.
int create_container(const std::string& id, NewBundle& bundle, const Network& network);

// Deletes a container, zncctl's record of it, and its bundle if that was made for this container
// alone. OK, or ERROR with errno set.
STATUS delete_container(const std::string& id, bool force);

// Calls `act` for each id and, unless `quiet`, prints the ids for which it succeeded. Returns the
// exit status that all failures have in common, kExitFailure if they differ.
template <class Action> int for_each_id(const std::vector<std::string>& ids, bool quiet, Action act)
{
    int result = kExitOk;
    for (const std::string& id : ids) {
        int status = act(id);
        if (status == kExitOk && !quiet)
            status = print_result(printable(id));
        if (status != kExitOk)
            result =
                result == kExitOk || result == status ? status : static_cast<int>(kExitFailure);
    }
    return result;
}

} // namespace zncctl

#endif
