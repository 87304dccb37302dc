#include "cli/containers/config_check.hpp"
#include "commands.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

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
    const Json list(cJSON_CreateArray());
    for (const ConfigFinding& finding : findings) {
        cJSON* entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list.get(), entry);
        add_text(entry, "file", file);
        add_text(entry, "path", finding.path);
        cJSON_AddBoolToObject(entry, "refused", finding.refused ? 1 : 0);
        add_text(entry, "expected", finding.expected);
        add_text(entry, "found", finding.found);
    }
    return compact(list.get());
}

} // namespace

int cmd_config_check(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitFailure;
    const std::string file = std::string(args.operand(0)) + "/config.json";
    const auto text = read_file(file);
    if (!text)
        return failure(file, error_text());
    std::string where;
    const Json document = parse_json(*text, &where);
    if (document == nullptr)
        return failure(file, fmt::format("no JSON at {}", where));
    const std::vector<ConfigFinding> findings = check_config(document.get());
    if (as_json || !findings.empty())
        if (const int status =
                as_json ? print_json(json(file, findings)) : print_result(plain(file, findings));
            status != kExitOk)
            return status;
    const bool refused = std::any_of(findings.begin(), findings.end(),
                                     [](const ConfigFinding& finding) { return finding.refused; });
    return refused ? kExitFailure : kExitOk;
}

} // namespace zncctl
