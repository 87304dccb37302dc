#include "cli/containers/daemon_info.hpp"
#include "commands.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <fmt/format.h>

#include "zncprotocol.h"

int zncctl::cmd_version(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitFailure;
    const std::string daemon = daemon_version();
    if (!as_json)
        return print_result(fmt::format("client    {}\ndaemon    {}\nprotocol  {}\n", ZNC_VERSION,
                                        daemon.empty() ? "does not answer" : daemon,
                                        ZNC_PROTOCOL_VERSION));
    const Json document(cJSON_CreateObject());
    add_text(document.get(), "client", ZNC_VERSION);
    if (daemon.empty())
        cJSON_AddNullToObject(document.get(), "daemon");
    else
        add_text(document.get(), "daemon", daemon);
    add_number(document.get(), "protocol", ZNC_PROTOCOL_VERSION);
    return print_json(compact(document.get()));
}
