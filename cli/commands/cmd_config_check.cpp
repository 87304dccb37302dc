#include "cli/containers/config_check.hpp"
#include "commands.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zncontainer.h"

namespace zncctl {
namespace {

std::string plain(const std::string& file, const std::vector<ConfigFinding>& findings)
{
    std::string text;
    for (const ConfigFinding& finding : findings) {
        std::string line = fmt::format("{}: {}: {}", file, finding.path,
                                       finding.refused ? "refused: " : "ignored: ");
        line += finding.expected.empty()
                    ? finding.found
                    : fmt::format("expected {}, found {}", finding.expected, finding.found);
        text += printable(line) + "\n";
    }
    return text;
}

std::string json(const std::string& file, const std::vector<ConfigFinding>& findings)
{
    Json list = Json::array();
    for (const ConfigFinding& finding : findings)
        list.push_back({{"file", file},
                        {"path", finding.path},
                        {"refused", finding.refused},
                        {"expected", finding.expected},
                        {"found", finding.found}});
    return compact(list);
}

} // namespace

int cmd_config_check(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    const std::string file = std::string(args.operand(0)) + "/config.json";
    const auto text = read_file(file);
    if (!text)
        return failure(file, error_text());
    std::string problem;
    const auto findings = check_config(*text, problem);
    if (!findings)
        return failure(file, problem);
    if (as_json || !findings->empty())
        if (const int status =
                as_json ? print_json(json(file, *findings)) : print_result(plain(file, *findings));
            status != kExitOk)
            return status;
    const bool refused = std::any_of(findings->begin(), findings->end(),
                                     [](const ConfigFinding& finding) { return finding.refused; });
    return refused ? kExitFailure : kExitOk;
}

} // namespace zncctl
