#include "cli/containers/container.hpp"
#include "commands.hpp"

#include <nlohmann/json.hpp>

int zncctl::cmd_inspect(const Arguments& args)
{
    const char* id = args.operand(0);
    const znc::MallocPtr<char> text(call_library([&] { return zncContainerInfoGet(id); }));
    if (text == nullptr)
        return daemon_failure(errno, id);
    const std::optional<Json> document = parse_json(text.get());
    if (!document)
        return daemon_failure(EBADMSG, id);
    return print_json(pretty(*document));
}
