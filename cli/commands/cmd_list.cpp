#include "cli/containers/container.hpp"
#include "cli/containers/listing.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"
#include "front/escape.hpp"

#include <filesystem>

namespace zncctl {
namespace {

std::string exit_code(const ListedContainer& one)
{
    if (!one.record || !one.record->exit_code)
        return "-";
    return std::to_string(*one.record->exit_code) + (one.record->out_of_memory ? "(OOM)" : "");
}

bool wanted(const Arguments& args, const ListedContainer& one)
{
    const char* status = args.value("status");
    if (status != nullptr && std::string_view(status) != one.status_name())
        return false;
    const char* bundle = args.value("bundle");
    std::error_code error;
    return bundle == nullptr ||
           std::filesystem::weakly_canonical(bundle, error) == text_of(one.state, "bundle");
}

int print_ids(const std::vector<ListedContainer>& all)
{
    std::string text;
    for (const ListedContainer& one : all)
        text += printable(one.id) + "\n";
    return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
}

// The library's state documents, extended with the members from zncctl's records.
int print_as_json(std::vector<ListedContainer>& all)
{
    Json list = Json::array();
    for (ListedContainer& one : all) {
        if (one.paused)
            one.state["paused"] = true;
        if (one.record && !one.record->started.empty())
            one.state["started"] = one.record->started;
        if (one.record && one.record->exit_code) {
            one.state["exitCode"] = *one.record->exit_code;
            one.state["exited"] = one.record->exited;
            one.state["oomKilled"] = one.record->out_of_memory;
        }
        list.push_back(std::move(one.state));
    }
    return print_json(compact(list));
}

int print_table(const std::vector<ListedContainer>& all, bool whole)
{
    std::vector<std::vector<std::string>> lines = {{"ID", "STATUS", "EXIT", "BUNDLE"}};
    for (const ListedContainer& one : all)
        lines.push_back({one.id, one.status_name(), exit_code(one), text_of(one.state, "bundle")});
    return print_result(table(lines, whole));
}

bool known_status(const char* status)
{
    for (const int number : {STATE_CREATED, STATE_RUNNING, STATE_STOPPED})
        if (std::string_view(status) == zncUtilStateIdToString(number))
            return true;
    return std::string_view(status) == kPausedText;
}

} // namespace

int cmd_list(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    if (args.has("status") && !known_status(args.value("status")))
        return usage_failure("--status is \"created\", \"running\", \"paused\" or \"stopped\"");
    auto all = listed_containers();
    if (!all)
        return daemon_failure(errno, "");
    std::erase_if(*all, [&](const ListedContainer& one) { return !wanted(args, one); });
    if (args.has("quiet") && !as_json)
        return print_ids(*all);
    return as_json ? print_as_json(*all) : print_table(*all, args.has("no-trunc"));
}

} // namespace zncctl
