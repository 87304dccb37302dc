// Changes the resource limits of containers.
#include "cli/containers/container.hpp"
#include "cli/containers/limits.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"

#include <array>
#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

int update(const std::string& id, const std::string& limits)
{
    if (status_of(id) == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    std::array<char, 1024> reason{};
    const nsid_t ns = namespace_of(id);
    if (ns >= 0 && znnsLimitsSet(ns, limits.c_str(), reason.data(), reason.size()) == OK)
        return kExitOk;
    if (errno == ESRCH)
        return failure(id, "it has ended", kExitWrongState);
    return reason[0] != '\0' ? failure(id, reason.data()) : local_failure(errno, id);
}

} // namespace

int cmd_update(const Arguments& args)
{
    std::string problem;
    const auto limits = limits_of(args, problem);
    if (!limits)
        return usage_failure(problem);
    if (limits->empty())
        return usage_failure("no limit is given");
    const std::string text = compact(*limits);
    return for_each_id(args.all_operands(), args.has("quiet"),
                       [&](const std::string& id) { return update(id, text); });
}

} // namespace zncctl
