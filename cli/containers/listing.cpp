#include "listing.hpp"

#include "at_once.hpp"
#include "container.hpp"
#include "front/container_id.hpp"
#include "image_bundle.hpp"
#include "pause.hpp"

namespace zncctl {
namespace {

int listed_status(const Json& state)
{
    const std::int64_t status = integer(member(state, "status")).value_or(STATE_UNKNOWN);
    return status >= 0 && status < STATE_UNKNOWN ? static_cast<int>(status) : STATE_UNKNOWN;
}

void complete(ListedContainer& one, const NamespaceIds& namespaces)
{
    if (one.status == STATE_RUNNING || one.status == STATE_STOPPED)
        one.record = read_record(one.id);
    const auto found = namespaces.find(kept_id(one.id));
    one.paused =
        one.status == STATE_RUNNING && found != namespaces.end() && is_paused(found->second);
}

// The daemon prints its local time.
std::time_t local_time(const std::string& text)
{
    std::tm local = {};
    local.tm_isdst = -1;
    return ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &local) != nullptr ? std::mktime(&local)
                                                                            : 0;
}

// `base` is storage_base().
ContainerOrigin origin_of(const std::string& id, const std::string& base)
{
    ContainerOrigin origin;
    if (const std::string own = own_bundle(id, base); !own.empty())
        origin.notes = read_notes(own);
    const znc::MallocPtr<char> text(zncContainerInfoGet(id.c_str()));
    const auto document =
        text ? parse_json(text.get(), nullptr, Annotations::kMayRepeat) : std::nullopt;
    const Json& array = children(document ? &*document : nullptr);
    if (array.empty())
        return origin;
    const Json& container = *array.begin();
    const Json* config = member(container, "Config");
    origin.command = texts_of(member(config, "Cmd"));
    if (const Json* labels = member(config, "Labels"); is_object(labels))
        origin.labels = *labels;
    if (origin.notes.created == 0)
        origin.notes.created = local_time(text_of(container, "Created"));
    return origin;
}

} // namespace

const char* ListedContainer::status_name() const
{
    return paused ? kPausedText : zncUtilStateIdToString(status);
}

std::optional<std::vector<ListedContainer>> listed_containers()
{
    std::optional<Json> states = all_states();
    if (!states)
        return std::nullopt;
    std::vector<ListedContainer> all;
    bool any_running = false;
    for (Json& state : *states) {
        const std::string id = text_of(state, "id");
        const int status = listed_status(state);
        any_running = any_running || status == STATE_RUNNING;
        all.push_back({std::move(state), id, status, false, std::nullopt});
    }
    const NamespaceIds namespaces = any_running ? namespaces_by_id() : NamespaceIds();
    for_each_at_once(all.size(), [&](std::size_t index) { complete(all[index], namespaces); });
    return all;
}

std::vector<std::string> ids_of(const std::vector<ListedContainer>& containers)
{
    std::vector<std::string> ids;
    ids.reserve(containers.size());
    for (const ListedContainer& one : containers)
        ids.push_back(one.id);
    return ids;
}

std::vector<ContainerOrigin> origins_of(const std::vector<std::string>& ids)
{
    std::vector<ContainerOrigin> origins(ids.size());
    const std::string base = ids.empty() ? "" : storage_base();
    call_library([&] {
        for_each_at_once(ids.size(),
                         [&](std::size_t index) { origins[index] = origin_of(ids[index], base); });
    });
    return origins;
}

} // namespace zncctl
