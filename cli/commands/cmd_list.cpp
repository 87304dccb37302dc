#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"
#include "front/container_id.hpp"
#include "front/escape.hpp"
#include "front/record.hpp"

#include <filesystem>
#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

struct Row {
    Json state; // the library's document
    std::string id;
    int status;
    bool paused = false;
    std::optional<Record> record;

    [[nodiscard]] const char* status_name() const
    {
        return paused ? kPausedText : zncUtilStateIdToString(status);
    }
    [[nodiscard]] std::string exit_code() const
    {
        if (!record || !record->exit_code)
            return "-";
        return std::to_string(*record->exit_code) + (record->out_of_memory ? "(OOM)" : "");
    }
};

// The status in the list may be out of date: the daemon notices only when it is asked for the state
// of a container that its program has ended.
int status_now(const std::string& id, const Json& state)
{
    const std::int64_t listed = integer(member(state, "status")).value_or(STATE_UNKNOWN);
    if (listed != STATE_RUNNING)
        return listed >= 0 && listed < STATE_UNKNOWN ? static_cast<int>(listed) : STATE_UNKNOWN;
    const CONTAINER_STATUS now = status_of(id);
    return now != STATE_UNKNOWN ? now : STATE_RUNNING;
}

bool wanted(const Arguments& args, const Row& row)
{
    const char* status = args.value("status");
    if (status != nullptr && std::string_view(status) != row.status_name())
        return false;
    const char* bundle = args.value("bundle");
    std::error_code error;
    return bundle == nullptr ||
           std::filesystem::weakly_canonical(bundle, error) == text_of(row.state, "bundle");
}

std::vector<Row> rows_of(const Arguments& args, Json states)
{
    std::vector<Row> rows;
    const std::set<std::string> paused = paused_ids();
    for (Json& state : states) {
        Row row = {std::move(state), "", STATE_UNKNOWN, false, std::nullopt};
        row.id = text_of(row.state, "id");
        row.status = status_now(row.id, row.state);
        if (member(row.state, "status") != nullptr)
            row.state["status"] = row.status;
        if (row.status == STATE_RUNNING || row.status == STATE_STOPPED)
            row.record = read_record(row.id);
        row.paused = row.status == STATE_RUNNING && paused.contains(kept_id(row.id));
        if (wanted(args, row))
            rows.push_back(std::move(row));
    }
    return rows;
}

int print_ids(const std::vector<Row>& rows)
{
    std::string text;
    for (const Row& row : rows)
        text += printable(row.id) + "\n";
    return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
}

// The library's state documents, extended with the members from zncctl's records.
int print_as_json(std::vector<Row>& rows)
{
    Json list = Json::array();
    for (Row& row : rows) {
        if (row.paused)
            row.state["paused"] = true;
        if (row.record && !row.record->started.empty())
            row.state["started"] = row.record->started;
        if (row.record && row.record->exit_code) {
            row.state["exitCode"] = *row.record->exit_code;
            row.state["exited"] = row.record->exited;
            row.state["oomKilled"] = row.record->out_of_memory;
        }
        list.push_back(std::move(row.state));
    }
    return print_json(compact(list));
}

int print_table(const std::vector<Row>& rows, bool whole)
{
    std::vector<std::vector<std::string>> lines = {{"ID", "STATUS", "EXIT", "BUNDLE"}};
    for (const Row& row : rows)
        lines.push_back({row.id, row.status_name(), row.exit_code(), text_of(row.state, "bundle")});
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
        return kExitFailure;
    if (args.has("status") && !known_status(args.value("status")))
        return usage_failure("--status is \"created\", \"running\", \"paused\" or \"stopped\"");
    std::optional<Json> states = all_states();
    if (!states)
        return daemon_failure(errno, "");
    std::vector<Row> rows = rows_of(args, *std::move(states));
    if (args.has("quiet"))
        return print_ids(rows);
    return as_json ? print_as_json(rows) : print_table(rows, args.has("no-trunc"));
}

} // namespace zncctl
