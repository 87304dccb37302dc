#include "cli/containers/container.hpp"
#include "cli/containers/daemon_info.hpp"
#include "cli/containers/image_bundle.hpp"
#include "commands.hpp"
#include "zarnel/daemon_file.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#include <zncontainer.h>

namespace zncctl {
namespace {

using Pairs = std::vector<std::pair<const char*, std::string>>;

std::string count_text()
{
    const znc::MallocPtr<char> list(call_library(zncList));
    const auto states = list != nullptr ? parse_json(list.get()) : std::nullopt;
    return states ? std::to_string(states->size()) : "unknown";
}

Pairs facts()
{
    utsname kernel = {};
    ::uname(&kernel);
    const pid_t daemon = daemon_pid();
    return {{"version", ZNC_VERSION},
            {"daemon", daemon > 0 ? fmt::format("process {}", daemon) : "does not answer"},
            {"containers", daemon > 0 ? count_text() : "unknown"},
            {"storage", storage_base()},
            {"runtime", ZN_RUNTIME_DIR},
            {"overlay", zncOvlFsAvailable() != FALSE ? "yes" : "no"},
            {"kernel", fmt::format("{} {}", kernel.sysname, kernel.release)},
            {"machine", kernel.machine}};
}

} // namespace

int cmd_info(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    Json document = Json::object();
    std::string text;
    for (const auto& [name, value] : facts()) {
        text += fmt::format("{:<11} {}\n", name, value);
        document[name] = value;
    }
    return as_json ? print_json(compact(document)) : print_result(text);
}

} // namespace zncctl
