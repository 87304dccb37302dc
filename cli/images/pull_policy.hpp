// pull_policy.hpp - the option --pull: when run and create fetch the image.
#ifndef ZNC_CLI_IMAGES_PULL_POLICY_HPP
#define ZNC_CLI_IMAGES_PULL_POLICY_HPP

#include "front/command.hpp"

#include <optional>
#include <string>

namespace zncctl {

// Whether --pull is not given or names a policy.
bool is_pull_policy_known(const Arguments& args);

// Fetches the image that an operand names if the policy says so: "missing" (default) if the store
// does not have it, "always", or "never". Paths of layouts, archives and ids are never fetched.
// Returns the operand by which the image is to be looked up then; nullopt after printing a message.
std::optional<std::string> fetch_as_needed(const Arguments& args, const std::string& operand);

} // namespace zncctl

#endif
