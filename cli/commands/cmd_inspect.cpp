#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"

#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

// Adds "Paused" to the state of each running container in the daemon's document.
void add_paused(const std::string& id, Json& document)
{
    for (Json& item : document) {
        const Json* state = member(item, "State");
        const Json* running = member(state, "Running");
        if (running != nullptr && running->is_boolean() && running->get<bool>())
            item["State"]["Paused"] = is_paused(id, STATE_RUNNING);
    }
}

} // namespace

int cmd_inspect(const Arguments& args)
{
    const char* id = args.operand(0);
    const znc::MallocPtr<char> text(call_library([&] { return zncContainerInfoGet(id); }));
    if (text == nullptr)
        return daemon_failure(errno, id);
    std::optional<Json> document = parse_json(text.get());
    if (!document)
        return daemon_failure(EBADMSG, id);
    add_paused(id, *document);
    return print_json(pretty(*document));
}

} // namespace zncctl
