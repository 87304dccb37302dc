// Lists containers in the form that users of container engines know.
#include "cli/containers/container.hpp"
#include "cli/containers/container_filter.hpp"
#include "cli/containers/listing.hpp"
#include "commands.hpp"
#include "front/duration.hpp"
#include "front/escape.hpp"
#include "front/row_format.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <map>

namespace zncctl {
namespace {

constexpr std::size_t kCommandMax = 20;
constexpr const char* kTable =
    "table {{.ID}}\t{{.Image}}\t{{.Command}}\t{{.Created}}\t{{.Status}}\t{{.Ports}}\t{{.Names}}";

const std::vector<std::string>& fields()
{
    static const std::vector<std::string> kFields = {
        "ID",         "Names",  "Image", "Command", "Created", "CreatedAt",
        "RunningFor", "Status", "State", "Ports",   "Labels",  "ExitCode"};
    return kFields;
}

// Column headings that differ from the field name.
std::string column_name(const std::string& field)
{
    static const std::map<std::string, std::string> kNames = {
        {"ID", "CONTAINER ID"}, {"CreatedAt", "CREATED AT"}, {"RunningFor", "CREATED"}};
    if (const auto found = kNames.find(field); found != kNames.end())
        return found->second;
    std::string name = field;
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return name;
}

class Row {
  public:
    Row(const ListedContainer& one, ContainerOrigin origin, std::time_t now)
        : one_(one), origin_(std::move(origin)), now_(now)
    {
    }

    // The values of the fields.
    [[nodiscard]] Json texts(bool whole) const
    {
        const std::time_t created = origin_.notes.created;
        std::string command = fmt::format("{}", fmt::join(origin_.command, " "));
        if (!whole && character_count(command) > kCommandMax)
            command = std::string(first_characters(command, kCommandMax - 3)) + "...";
        std::string labels;
        for (const auto& label : origin_.labels.items())
            labels += fmt::format("{}{}={}", labels.empty() ? "" : ",", label.key(),
                                  label.value().is_string() ? label.value().get<std::string>()
                                                            : compact(label.value()));
        const std::string ago = created == 0 ? "" : duration_text(now_ - created) + " ago";
        return {
            {"ID", one_.id},     {"Names", one_.id},
            {"Image", image()},  {"Command", command},
            {"Created", ago},    {"CreatedAt", created == 0 ? "" : time_text(created)},
            {"RunningFor", ago}, {"Status", status()},
            {"State", state()},  {"Ports", fmt::format("{}", fmt::join(origin_.notes.ports, ", "))},
            {"Labels", labels},  {"ExitCode", exit_code() ? std::to_string(*exit_code()) : ""}};
    }

    [[nodiscard]] Json document() const
    {
        return {{"Id", one_.id},
                {"Names", {one_.id}},
                {"Image", image()},
                {"Command", origin_.command},
                {"Created", origin_.notes.created},
                {"CreatedAt", origin_.notes.created == 0 ? "" : time_text(origin_.notes.created)},
                {"State", state()},
                {"Status", status()},
                {"Exited", one_.status == STATE_STOPPED},
                {"ExitCode", exit_code() ? Json(*exit_code()) : Json()},
                {"Pid", one_.status == STATE_RUNNING && one_.record ? one_.record->program : 0},
                {"Ports", origin_.notes.ports},
                {"Labels", origin_.labels}};
    }

    [[nodiscard]] FilteredContainer filtered() const
    {
        return {one_.id, image(), state(), exit_code(), &origin_.labels};
    }

  private:
    // A container without an image shows its bundle.
    [[nodiscard]] std::string image() const
    {
        return origin_.notes.image.empty() ? text_of(one_.state, "bundle") : origin_.notes.image;
    }

    [[nodiscard]] std::string state() const
    {
        return one_.status == STATE_STOPPED ? "exited" : one_.status_name();
    }

    // 0 while the program has not ended; nullopt if the exit code was lost.
    [[nodiscard]] std::optional<int> exit_code() const
    {
        if (one_.status != STATE_STOPPED)
            return 0;
        return one_.record ? one_.record->exit_code : std::nullopt;
    }

    [[nodiscard]] std::string since(const std::string& time) const
    {
        const std::time_t then = time_of_text(time);
        return then == 0 ? "" : duration_text(now_ - then);
    }

    [[nodiscard]] std::string status() const
    {
        if (one_.status == STATE_CREATED)
            return "Created";
        if (one_.status == STATE_RUNNING) {
            const std::string time = one_.record ? since(one_.record->started) : "";
            return fmt::format("Up{}{}{}", time.empty() ? "" : " ", time,
                               one_.paused ? " (Paused)" : "");
        }
        if (!one_.record || !one_.record->exit_code)
            return "Exited";
        const std::string time = since(one_.record->exited);
        return fmt::format("Exited ({}){}{}{}", *one_.record->exit_code, time.empty() ? "" : " ",
                           time, time.empty() ? "" : " ago");
    }

    const ListedContainer& one_;
    ContainerOrigin origin_;
    std::time_t now_;
};

int print_rows(const std::vector<Row>& rows, const RowFormat& format, bool whole)
{
    if (!format.is_table()) {
        std::string text;
        for (const Row& row : rows)
            text += format.text(row.texts(true)) + "\n";
        return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
    }
    Json names = Json::object();
    for (const std::string& field : format.heading())
        names[field] = column_name(field);
    std::vector<std::vector<std::string>> lines = {split(format.text(names), '\t')};
    for (const Row& row : rows)
        lines.push_back(split(format.text(row.texts(whole)), '\t'));
    return print_result(table(lines, whole));
}

int print_documents(const std::vector<Row>& rows)
{
    Json list = Json::array();
    for (const Row& row : rows)
        list.push_back(row.document());
    return print_json(pretty(list));
}

int print_ids(const std::vector<Row>& rows)
{
    std::string text;
    for (const Row& row : rows)
        text += printable(row.filtered().id) + "\n";
    return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
}

// The format of the rows: the user's, or all columns.
RowFormat read_row_format(const Arguments& args)
{
    const std::string format = args.value("format", kTable);
    return {format == "table" || format == "json" ? kTable : format, fields()};
}

} // namespace

int cmd_ps(const Arguments& args)
try {
    const RowFormat format = read_row_format(args);
    const ContainerFilter filter(args.values("filter"));
    auto all = listed_containers();
    if (!all)
        return daemon_failure(errno, "");
    if (!args.has("all") && !filter.names_state())
        std::erase_if(*all, [](const ListedContainer& one) { return one.status != STATE_RUNNING; });
    std::vector<ContainerOrigin> origins = origins_of(ids_of(*all));
    std::vector<Row> rows;
    for (std::size_t index = 0; index < all->size(); ++index) {
        Row row((*all)[index], std::move(origins[index]), std::time(nullptr));
        if (filter.matches(row.filtered()))
            rows.push_back(std::move(row));
    }
    if (args.has("quiet") && !args.has("format"))
        return print_ids(rows);
    if (std::string_view(args.value("format", "")) == "json")
        return print_documents(rows);
    return print_rows(rows, format, args.has("no-trunc"));
} catch (const std::runtime_error& error) {
    return usage_failure(error.what());
}

} // namespace zncctl
