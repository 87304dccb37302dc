#include "fields.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {
namespace {

void require(bool holds, const std::string& name, const char* problem)
{
    if (!holds)
        throw Failure(fmt::format("{}: {}", name, problem));
}

} // namespace

Fields::Fields(const Json& object, std::string where) : object_(&object), where_(std::move(where))
{
    require(object.is_object(), where_.empty() ? "config.json" : where_, "not an object");
}

std::string Fields::name(const char* key) const
{
    return where_.empty() ? key : where_ + "." + key;
}

const Json* Fields::find(const char* key) const
{
    const Json* value = zncctl::member(object_, key);
    require(value != nullptr || zncctl::any_case_member(object_, key) == nullptr, name(key),
            "is spelled in another case");
    return value == nullptr || value->is_null() ? nullptr : value;
}

std::string Fields::text(const char* key) const
{
    const Json* value = find(key);
    require(value == nullptr || value->is_string(), name(key), "not a string");
    return value != nullptr ? value->get<std::string>() : "";
}

bool Fields::boolean(const char* key) const
{
    const Json* value = find(key);
    require(value == nullptr || value->is_boolean(), name(key), "not true or false");
    return value != nullptr && value->get<bool>();
}

std::optional<std::int64_t> Fields::number(const char* key, std::int64_t least,
                                           std::int64_t most) const
{
    const Json* value = find(key);
    if (value == nullptr)
        return std::nullopt;
    const auto number = zncctl::integer(value);
    if (!number || *number < least || *number > most)
        throw Failure(fmt::format("{}: not a whole number from {} to {}", name(key), least, most));
    return number;
}

std::optional<Fields> Fields::object(const char* key) const
{
    const Json* value = find(key);
    return value != nullptr ? std::optional<Fields>(std::in_place, *value, name(key))
                            : std::nullopt;
}

void Fields::each(const char* key, const Visit& visit) const
{
    const Json* value = find(key);
    if (value == nullptr)
        return;
    require(value->is_array(), name(key), "not an array");
    std::size_t index = 0;
    for (const Json& element : *value)
        visit(element, fmt::format("{}[{}]", name(key), index++));
}

void Fields::each_text(const char* key, const std::function<void(const std::string&)>& visit) const
{
    each(key, [&](const Json& element, const std::string& where) {
        require(element.is_string(), where, "not a string");
        visit(element.get<std::string>());
    });
}

} // namespace zncrun
