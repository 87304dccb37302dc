// limits.hpp - converts limits given as options to the member "linux.resources" of a configuration.
#ifndef ZNC_CLI_CONTAINERS_LIMITS_HPP
#define ZNC_CLI_CONTAINERS_LIMITS_HPP

#include "front/command.hpp"
#include "front/json.hpp"
#include "front/sizes.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zncctl {

// A number of processors such as "1.5", in millionths. Nullopt unless it is positive, has at most
// six decimals and at most four digits before them.
std::optional<std::int64_t> to_processors(std::string_view text);

// The object for the options memory, memory-swap, cpus, cpu-shares, cpuset-cpus and pids-limit; an
// empty one if none of them is given. Nullopt with `problem` set if a value is not valid.
std::optional<Json> limits_of(const Arguments& args, std::string& problem);

} // namespace zncctl

#endif
