#include "container_filter.hpp"

#include "front/escape.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr std::array<std::string_view, 6> kKeys = {"name",  "id",       "status",
                                                   "label", "ancestor", "exited"};
constexpr std::array<std::string_view, 4> kStates = {"created", "running", "paused", "exited"};

std::string checked_value(const std::string& key, std::string value)
{
    if (key == "status" && value == "stopped") // the word that zncctl list uses
        return "exited";
    if (key == "status" && !is_among(value, kStates))
        throw std::runtime_error(
            fmt::format("the status of a filter is \"created\", \"running\", \"paused\" or "
                        "\"exited\", not '{}'",
                        printable(value)));
    if (key == "exited" && !to_number<int>(value))
        throw std::runtime_error(
            fmt::format("the exit code '{}' of a filter is no number", printable(value)));
    return value;
}

// "NAME" or "NAME=VALUE".
bool has_label(const Json* labels, const std::string& wanted)
{
    const std::size_t equals = std::min(wanted.find('='), wanted.size());
    const Json* value = member(labels, std::string_view(wanted).substr(0, equals));
    return value != nullptr && (equals == wanted.size() || *value == wanted.substr(equals + 1));
}

bool matches_one(const FilteredContainer& container, const std::string& key,
                 const std::string& value)
{
    if (key == "name")
        return container.id.find(value) != value.npos;
    if (key == "id")
        return container.id.starts_with(value);
    if (key == "status")
        return container.state == value;
    if (key == "label")
        return has_label(container.labels, value);
    if (key == "ancestor")
        return is_image_named(container.image, value);
    return container.state == "exited" && container.exit_code &&
           container.exit_code == to_number<int>(value);
}

} // namespace

bool is_image_named(const std::string& image, const std::string& wanted)
{
    const std::size_t colon = image.rfind(':');
    const bool tagged = colon != image.npos && image.find('/', colon) == image.npos;
    return image == wanted || (tagged && image.substr(0, colon) == wanted) ||
           image + ":latest" == wanted;
}

ContainerFilter::ContainerFilter(const std::vector<std::string>& filters)
{
    for (const std::string& filter : filters) {
        const std::size_t equals = std::min(filter.find('='), filter.size());
        const std::string key = filter.substr(0, equals);
        if (equals == filter.size() || !is_among(key, kKeys))
            throw std::runtime_error(fmt::format("a filter is KEY=VALUE with the key {}, not '{}'",
                                                 fmt::join(kKeys, ", "), printable(filter)));
        values_[key].push_back(checked_value(key, filter.substr(equals + 1)));
    }
}

bool ContainerFilter::names_state() const
{
    return values_.contains("status") || values_.contains("exited");
}

bool ContainerFilter::matches(const FilteredContainer& container) const
{
    return std::all_of(values_.begin(), values_.end(), [&](const auto& entry) {
        return std::any_of(entry.second.begin(), entry.second.end(), [&](const std::string& value) {
            return matches_one(container, entry.first, value);
        });
    });
}

} // namespace zncctl
