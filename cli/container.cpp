#include "container.hpp"

#include "files.hpp"
#include "record.hpp"
#include "store.hpp"

#include <cerrno>

namespace zncctl {

Json state_of(const std::string& id)
{
    const znc::MallocPtr<char> text(call_library([&] { return zncState(id.c_str()); }));
    if (text == nullptr)
        return nullptr;
    Json state = parse_json(text.get());
    if (state == nullptr)
        errno = EBADMSG;
    return state;
}

CONTAINER_STATUS status_of(const std::string& id)
{
    return call_library([&] { return zncStatusGet(id.c_str()); });
}

std::string root_of_bundle(const std::string& bundle)
{
    const Json config = parse_json(read_file(bundle + "/config.json").value_or(""));
    const std::string path = text_of(member(config.get(), "root"), "path");
    if (path.empty())
        return "";
    return path.starts_with('/') ? path : bundle + "/" + path;
}

std::optional<std::vector<std::string>> ids_in_state(CONTAINER_STATUS status)
{
    const znc::MallocPtr<char> text(call_library(zncList));
    if (text == nullptr)
        return std::nullopt;
    const Json states = parse_json(text.get());
    std::vector<std::string> ids;
    const cJSON* state = nullptr;
    cJSON_ArrayForEach(state, states.get())
    {
        std::string id = text_of(state, "id");
        if (status_of(id) == status)
            ids.push_back(std::move(id));
    }
    return ids;
}

STATUS delete_container(const std::string& id, bool force)
{
    // Asked only where it can matter: most containers have no bundle of that kind.
    const std::string own = own_bundle(id);
    const Json state = own.empty() ? nullptr : state_of(id);
    const unsigned option = force ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    if (call_library([&] { return zncDelete(id.c_str(), option); }) != OK)
        return ERROR;
    remove_record(id);
    if (!own.empty() && text_of(state.get(), "bundle") == own)
        zncImageBundleDelete(own.c_str());
    return OK;
}

} // namespace zncctl
