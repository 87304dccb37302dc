// container_filter.hpp - the filters "KEY=VALUE" of lists of containers. Used by ps and prune.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_FILTER_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_FILTER_HPP

#include "front/json.hpp"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zncctl {

struct FilteredContainer {
    std::string id;
    std::string image;
    std::string state;            // "created", "running", "paused", "exited"
    std::optional<int> exit_code; // if it is known
    const Json* labels = nullptr;
};

// Whether `wanted`, a name with or without a tag, names the image `image`.
bool is_image_named(const std::string& image, const std::string& wanted);

class ContainerFilter {
  public:
    // Throws std::runtime_error for an unknown key or value.
    explicit ContainerFilter(const std::vector<std::string>& filters);

    // Whether the filters ask for a state, so that containers that do not run are wanted, too.
    [[nodiscard]] bool names_state() const;
    // Filters with the same key are alternatives; each key must match.
    [[nodiscard]] bool matches(const FilteredContainer& container) const;

  private:
    std::map<std::string, std::vector<std::string>> values_;
};

} // namespace zncctl

#endif
