#include "cli/containers/daemon_info.hpp"
#include "commands.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zncprotocol.h"

int zncctl::cmd_version(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    const std::string daemon = daemon_version();
    if (!as_json)
        return print_result(fmt::format("client    {}\ndaemon    {}\nprotocol  {}\n", ZNC_VERSION,
                                        daemon.empty() ? "does not answer" : daemon,
                                        ZNC_PROTOCOL_VERSION));
    return print_json(compact({{"client", ZNC_VERSION},
                               {"daemon", daemon.empty() ? Json() : Json(daemon)},
                               {"protocol", ZNC_PROTOCOL_VERSION}}));
}
