#include "pull_policy.hpp"

#include "front/output.hpp"
#include "image_fetcher.hpp"
#include "image_lookup.hpp"
#include "image_source.hpp"
#include "reference.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

constexpr const char* kMissing = "missing";
constexpr const char* kAlways = "always";
constexpr const char* kNever = "never";
constexpr std::string_view kRegistryPrefix = "docker://";

// Whether the store has no image of this name or id. A prefix of several ids is not missing.
bool is_missing(const std::string& name)
{
    const auto in_use = BundlesInUse(image_area());
    const std::vector<StoredImage> images = stored_images();
    std::string problem;
    if (!find_stored(images, name, problem).empty())
        return false;
    return !possible_references(name).empty() && problem == kNoSuchImage;
}

std::optional<std::string> fetch(const Arguments& args, const std::string& operand)
{
    std::string problem;
    const auto what = fetch_source(operand, problem);
    if (!what) {
        static_cast<void>(failure(operand, problem));
        return std::nullopt;
    }
    const bool quiet = args.has("quiet") || std::string_view(args.value("progress", "")) == "none";
    if (fetch_image(*what, fetch_options(args), quiet).status != kExitOk)
        return std::nullopt;
    return what->name;
}

} // namespace

bool is_pull_policy_known(const Arguments& args)
{
    const std::string_view policy = args.value("pull", kMissing);
    return policy == kMissing || policy == kAlways || policy == kNever;
}

std::optional<std::string> fetch_as_needed(const Arguments& args, const std::string& operand)
try {
    const std::string policy = args.value("pull", kMissing);
    const bool prefixed = operand.starts_with(kRegistryPrefix);
    const std::string name = prefixed ? operand.substr(kRegistryPrefix.size()) : operand;
    if (!prefixed && !is_image_name(operand))
        return operand;
    if (policy == kNever)
        return name;
    const bool is_layout = !prefixed && is_layout_below(operand);
    if ((policy == kMissing || is_layout) && !is_missing(name))
        return policy == kMissing ? name : fetch(args, operand);
    return is_layout ? operand : fetch(args, operand);
} catch (const std::runtime_error& error) {
    static_cast<void>(failure(operand, error.what()));
    return std::nullopt;
}

} // namespace zncctl
