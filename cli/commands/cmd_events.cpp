// Prints the events of containers.
#include "cli/containers/container_filter.hpp"
#include "cli/containers/event_journal.hpp"
#include "cli/containers/log_lines.hpp"
#include "commands.hpp"
#include "front/duration.hpp"
#include "front/escape.hpp"
#include "front/output.hpp"
#include "front/row_format.hpp"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>

#include "zarnel/watch.h"

namespace zncctl {
namespace {

constexpr std::int64_t kNanoseconds = 1000000000;
constexpr const char* kType = "container"; // there are no events of anything else

const std::vector<std::string>& fields()
{
    static const std::vector<std::string> kFields = {
        "ContainerExitCode", "ID", "Image", "Name", "Status", "Time", "Type"};
    return kFields;
}

Json document(const Event& event)
{
    Json json = {{"ID", event.id},
                 {"Image", event.image},
                 {"Name", event.name},
                 {"Status", event.status},
                 {"Time", precise_time_text(event.time, 'T', "Z")},
                 {"Type", kType}};
    if (event.exit_code)
        json["ContainerExitCode"] = *event.exit_code;
    return json;
}

std::string line(const Event& event)
{
    const std::string code =
        event.exit_code ? fmt::format(", exitCode={}", *event.exit_code) : std::string();
    return fmt::format("{} {} {} {} (image={}, name={}{})",
                       precise_time_text(event.time, ' ', " +0000 UTC"), kType,
                       printable(event.status), printable(event.id), printable(event.image),
                       printable(event.name), code);
}

// Which events are wanted. Throws std::runtime_error for an invalid filter.
class Selection {
  public:
    explicit Selection(const Arguments& args)
    {
        for (const std::string& filter : args.values("filter")) {
            const std::size_t equals = std::min(filter.find('='), filter.size());
            const std::string key = filter.substr(0, equals);
            if (equals == filter.size() ||
                (key != "container" && key != "event" && key != "image" && key != "type"))
                throw std::runtime_error(
                    fmt::format("a filter is container=, event=, image= or type= and a value, "
                                "not '{}'",
                                printable(filter)));
            values_[key].push_back(filter.substr(equals + 1));
        }
        const std::time_t now = std::time(nullptr);
        from_ = read_time(args, "since", 0,
                          [now](const char* text) { return read_past_time(text, now); });
        to_ = read_time(args, "until", kNever,
                        [now](const char* text) { return read_future_time(text, now); });
    }

    [[nodiscard]] bool matches(const Event& event) const
    {
        const std::int64_t seconds = event.time / kNanoseconds;
        return seconds >= from_ && seconds <= to_ &&
               std::all_of(values_.begin(), values_.end(), [&](const auto& filter) {
                   return std::any_of(filter.second.begin(), filter.second.end(),
                                      [&](const std::string& value) {
                                          return matches_one(event, filter.first, value);
                                      });
               });
    }

    // How long to wait for events, in milliseconds; -1: for ever, 0: not at all.
    [[nodiscard]] int patience() const
    {
        constexpr std::int64_t kMost = 3600; // the caller waits again after that
        if (to_ == kNever)
            return -1;
        const std::int64_t left = to_ + 1 - std::time(nullptr);
        return static_cast<int>(std::clamp<std::int64_t>(left, 0, kMost) * 1000);
    }

  private:
    static constexpr std::time_t kNever = std::numeric_limits<std::time_t>::max();

    template <class Read>
    static std::time_t read_time(const Arguments& args, const char* option, std::time_t absent,
                                 Read read)
    {
        const char* text = args.value(option);
        if (text == nullptr)
            return absent;
        const std::optional<std::time_t> time = read(text);
        if (!time)
            throw std::runtime_error(fmt::format(
                "--{} is a time such as 2026-11-22T13:00:00Z or a duration such as 10m, not '{}'",
                option, printable(text)));
        return *time;
    }

    static bool matches_one(const Event& event, const std::string& key, const std::string& value)
    {
        if (key == "container")
            return event.name == value || event.id.starts_with(value);
        if (key == "event")
            return event.status == value;
        return key == "image" ? is_image_named(event.image, value) : value == kType;
    }

    std::map<std::string, std::vector<std::string>> values_;
    std::time_t from_ = 0;
    std::time_t to_ = kNever;
};

class Printer {
  public:
    explicit Printer(const char* format)
        : json_(std::string_view(format) == "json"), format_(json_ ? "" : format, fields()),
          fields_(!json_ && format[0] != '\0')
    {
    }

    [[nodiscard]] int print(const Event& event) const
    {
        if (json_)
            return print_json(compact(document(event)));
        if (!fields_)
            return print_result(line(event));
        Json row = document(event);
        if (!event.exit_code)
            row["ContainerExitCode"] = "";
        return print_result(format_.text(row));
    }

  private:
    bool json_;
    RowFormat format_;
    bool fields_;
};

// Prints events until no more wanted events can occur, or until a signal ends the process.
int follow(const Selection& selection, const Printer& printer, JournalReader& reader, int watch)
{
    for (;;) {
        if (watch >= 0)
            znWatchClear(watch);
        const int patience = watch < 0 ? 0 : selection.patience(); // before reading
        for (const Event& event : reader.read())
            if (selection.matches(event))
                if (const int status = printer.print(event); status != kExitOk)
                    return status;
        if (patience == 0)
            return kExitOk;
        pollfd wanted = {watch, POLLIN, 0};
        if (::poll(&wanted, 1, patience) < 0 && errno != EINTR)
            return local_failure(errno, "");
    }
}

} // namespace

int cmd_events(const Arguments& args)
try {
    const Selection selection(args);
    const Printer printer(args.value("format", ""));
    const bool stream = !args.has("no-stream");
    const znc::UniqueFd area = open_journal_area(true);
    const znc::UniqueFd watch(area && stream ? znWatchOpen(area.get()) : -1);
    if (!area || (stream && !watch))
        return local_failure(errno, "the journal of events");
    const bool from_now = stream && !args.has("since") && !args.has("until");
    JournalReader reader(area.get(), from_now);
    return follow(selection, printer, reader, watch.get());
} catch (const std::runtime_error& error) {
    return usage_failure(error.what());
}

} // namespace zncctl
