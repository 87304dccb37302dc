// container.hpp - what several commands ask the daemon about a container, and what they do for each
// of many.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_HPP

#include "front/command.hpp"
#include "front/escape.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <optional>

#include "zncontainer.h"

namespace zncctl {

// The state document; nothing with errno set as zncState leaves it.
std::optional<Json> state_of(const std::string& id);

// Its status. STATE_UNKNOWN with errno set when there is no such container or no daemon. Asking is
// what lets the daemon notice that a container has ended.
CONTAINER_STATUS status_of(const std::string& id);

// The bundle of a state document, and what it says the container's root is: a host path.
std::string root_of_bundle(const std::string& bundle);

// The state documents of all containers, as an array; nothing with errno set when the daemon
// gives no list. There are more containers than one answer of the daemon holds: then, after a
// warning, those that zncctl and the storage base know of.
std::optional<Json> all_states();

// The ids of all containers in this state; nothing with errno set when the daemon gives no list.
std::optional<std::vector<std::string>> ids_in_state(CONTAINER_STATUS status);

// Creates a container from a bundle. kExitOk, or a status after a message.
int create_container(const std::string& id, const std::string& bundle);

// Deletes a container, what zncctl knows of it, and its bundle if that was made for it alone. OK or
// ERROR with errno set.
STATUS delete_container(const std::string& id, bool force);

// Does it for each id and prints the id of each that went well, unless "quiet" is given. The exit
// status is that of the failures if they are of one kind.
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
