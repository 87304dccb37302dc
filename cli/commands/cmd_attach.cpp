#include "cli/containers/attach.hpp"
#include "commands.hpp"
#include "front/output.hpp"

namespace zncctl {

int cmd_attach(const Arguments& args)
{
    auto keys = read_detach_keys(args);
    if (!keys)
        return kExitUsage;
    return attach_to(args.operand(0),
                     {*std::move(keys), !args.has("no-signals"), !args.has("no-stdin")});
}

} // namespace zncctl
