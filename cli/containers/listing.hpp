// listing.hpp - the rows of container lists: the daemon's state, completed from zncctl's records
// and notes. Used by list and ps.
#ifndef ZNC_CLI_CONTAINERS_LISTING_HPP
#define ZNC_CLI_CONTAINERS_LISTING_HPP

#include "container_notes.hpp"
#include "front/json.hpp"
#include "front/record.hpp"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace zncctl {

struct ListedContainer { // NOLINT(bugprone-exception-escape): moving a JSON value does not throw
    Json state;          // the library's document
    std::string id;
    int status = 0;
    bool paused = false;
    std::optional<Record> record; // set if its program was started

    [[nodiscard]] const char* status_name() const; // "created", "running", "paused", "stopped"
};

// All containers, in the daemon's order. Nullopt with errno set if the daemon sends no list.
std::optional<std::vector<ListedContainer>> listed_containers();

std::vector<std::string> ids_of(const std::vector<ListedContainer>& containers);

// What a container was made from, and its program.
struct ContainerOrigin {  // NOLINT(bugprone-exception-escape): moving a JSON value does not throw
    ContainerNotes notes; // `created` is 0 if nothing is known
    std::vector<std::string> command;
    Json labels = Json::object();
};

// The origins of these containers, in their order.
std::vector<ContainerOrigin> origins_of(const std::vector<std::string>& ids);

} // namespace zncctl

#endif
