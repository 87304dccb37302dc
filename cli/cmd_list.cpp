#include "command.hpp"
#include "output.hpp"

#include <algorithm>
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

struct TreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDeleter>;

struct Row {
    std::string id;
    std::string status;
    std::string bundle;
};

std::string text_of(const cJSON* state, const char* key)
{
    const char* text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(state, key));
    return text != nullptr ? text : "";
}

std::vector<Row> rows_of(const cJSON* states)
{
    std::vector<Row> rows;
    const cJSON* state = nullptr;
    cJSON_ArrayForEach(state, states)
    {
        const cJSON* status = cJSON_GetObjectItemCaseSensitive(state, "status");
        const int number = cJSON_IsNumber(status) ? status->valueint : STATE_UNKNOWN;
        rows.push_back(
            {text_of(state, "id"), zncUtilStateIdToString(number), text_of(state, "bundle")});
    }
    return rows;
}

// An id may hold any byte; a terminal must not obey it, and a row is one line.
std::string printable(std::string text)
{
    for (char& c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            c = '?';
    return text;
}

std::string table(std::vector<Row> rows)
{
    rows.insert(rows.begin(), {"ID", "STATUS", "BUNDLE"});
    std::size_t id_width = 0;
    std::size_t status_width = 0;
    for (Row& row : rows) {
        row.id = printable(std::move(row.id));
        row.bundle = printable(std::move(row.bundle));
        id_width = std::max(id_width, row.id.size());
        status_width = std::max(status_width, row.status.size());
    }
    std::string text;
    for (const Row& row : rows)
        text += row.id + std::string(id_width - row.id.size() + 2, ' ') + row.status +
                std::string(status_width - row.status.size() + 2, ' ') + row.bundle + "\n";
    return text;
}

std::string ids(const std::vector<Row>& rows)
{
    std::string text;
    for (const Row& row : rows)
        text += row.id + "\n";
    return text;
}

} // namespace

int cmd_list(const Arguments& args)
{
    const std::string_view format = args.value("format", "table");
    if (format != "table" && format != "json")
        return local_failure(S_zncLib_INVALID_FORMAT_OPTION);
    const znc::MallocPtr<char> list(call_library(zncList));
    if (list == nullptr)
        return daemon_failure(errno);
    if (format == "json" && !args.has("quiet"))
        return print_result(list.get());
    const Tree states(cJSON_Parse(list.get()));
    if (!cJSON_IsArray(states.get()))
        return daemon_failure(EBADMSG);
    std::vector<Row> rows = rows_of(states.get());
    if (!args.has("quiet"))
        return print_result(table(std::move(rows)));
    return rows.empty() ? static_cast<int>(kExitOk) : print_result(ids(rows));
}

} // namespace zncctl
