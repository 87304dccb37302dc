#include "cli/containers/container.hpp"
#include "commands.hpp"

int zncctl::cmd_inspect(const Arguments& args)
{
    const char* id = args.operand(0);
    const znc::MallocPtr<char> text(call_library([&] { return zncContainerInfoGet(id); }));
    if (text == nullptr)
        return daemon_failure(errno, id);
    const Json document = parse_json(text.get());
    if (document == nullptr)
        return daemon_failure(EBADMSG, id);
    return print_json(pretty(document.get()));
}
