#include "container_notes.hpp"

#include "front/files.hpp"
#include "front/json.hpp"

#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

constexpr const char* kNotes = ".container.json";

bool is_set(const Json& json, const char* key)
{
    const Json* value = member(json, key);
    return value != nullptr && *value == true;
}

} // namespace

bool write_notes(int bundle, const ContainerNotes& notes)
{
    const Json json = {
        {"image", notes.image},
        {"ports", notes.ports},
        {"created", notes.created},
        {"tty", notes.tty},
        {"interactive", notes.interactive},
        {"remove", notes.remove},
    };
    return replace_file(bundle, kNotes, pretty(json));
}

ContainerNotes read_notes(const std::string& bundle)
{
    ContainerNotes notes;
    const auto text = read_file(bundle + "/" + kNotes);
    const auto json = text ? parse_json(*text) : std::nullopt;
    if (!json || !json->is_object())
        return notes;
    notes.image = text_of(*json, "image");
    notes.ports = texts_of(member(*json, "ports"));
    notes.created = integer(member(*json, "created")).value_or(0);
    notes.tty = is_set(*json, "tty");
    notes.interactive = is_set(*json, "interactive");
    notes.remove = is_set(*json, "remove");
    return notes;
}

} // namespace zncctl
