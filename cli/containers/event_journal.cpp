#include "event_journal.hpp"

#include "front/files.hpp"
#include "front/json.hpp"
#include "front/record.hpp"

#include <cstdio>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zncctl {
namespace {

constexpr const char* kArea = "events";
constexpr const char* kName = "journal";
constexpr const char* kOldName = "journal.1";
constexpr std::size_t kLineMax = 64 * 1024;

std::string line_of(const Event& event)
{
    Json json = {{"time", event.time},
                 {"status", event.status},
                 {"id", event.id},
                 {"name", event.name},
                 {"image", event.image}};
    if (event.exit_code)
        json["exitCode"] = *event.exit_code;
    std::string line = compact(json);
    if (!line.ends_with('\n'))
        line += '\n';
    return line;
}

std::optional<Event> event_of(std::string_view line)
{
    const auto json = parse_json(line);
    const auto time = json ? integer(member(*json, "time")) : std::nullopt;
    if (!time)
        return std::nullopt;
    Event event = {*time,
                   text_of(*json, "status"),
                   text_of(*json, "id"),
                   text_of(*json, "name"),
                   text_of(*json, "image"),
                   std::nullopt};
    if (const auto code = integer(member(*json, "exitCode")); code && std::in_range<int>(*code))
        event.exit_code = static_cast<int>(*code);
    return event;
}

znc::UniqueFd open_for_reading(int area, const char* name)
{
    return znc::UniqueFd(::openat(area, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
}

bool is_same_file(int one, const struct stat& other)
{
    struct stat st = {};
    return ::fstat(one, &st) == 0 && st.st_ino == other.st_ino && st.st_dev == other.st_dev;
}

// Of several processes only one renames the file, and only if it still has its name.
void rotate(int area, int file)
{
    struct stat named = {};
    if (::flock(file, LOCK_EX | LOCK_NB) == 0 &&
        ::fstatat(area, kName, &named, AT_SYMLINK_NOFOLLOW) == 0 && is_same_file(file, named))
        ::renameat(area, kName, area, kOldName);
}

} // namespace

znc::UniqueFd open_journal_area(bool make)
{
    return open_runtime_area(kArea, make);
}

// Each event is appended by one write call, so concurrent events are not interleaved.
void append_event(int area, const Event& event, std::size_t max)
{
    const znc::ErrnoSaver keep;
    const znc::UniqueFd file(
        ::openat(area, kName, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat st = {};
    if (!file || !write_all(file.get(), line_of(event)) || ::fstat(file.get(), &st) != 0)
        return;
    if (static_cast<std::size_t>(st.st_size) >= max)
        rotate(area, file.get());
}

JournalReader::JournalReader(int area, bool at_end) : area_(area)
{
    if (!at_end)
        file_ = open_for_reading(area, kOldName);
    if (!file_)
        file_ = open_for_reading(area, kName);
    if (at_end && file_)
        ::lseek(file_.get(), 0, SEEK_END);
}

// The file may have been renamed since the last call: it is read to its end before the new one.
std::vector<Event> JournalReader::read()
{
    std::vector<Event> events;
    for (;;) {
        znc::UniqueFd newest = open_for_reading(area_, kName);
        add_events(file_ ? read_to_end(file_.get()) : "", events);
        struct stat st = {};
        if (!newest || ::fstat(newest.get(), &st) != 0 || (file_ && is_same_file(file_.get(), st)))
            return events;
        file_ = std::move(newest);
        rest_.clear();
    }
}

void JournalReader::add_events(std::string_view text, std::vector<Event>& events)
{
    rest_ += text;
    std::size_t start = 0;
    for (std::size_t end = rest_.find('\n'); end != rest_.npos; end = rest_.find('\n', start)) {
        if (auto event = event_of(std::string_view(rest_).substr(start, end - start)))
            events.push_back(*std::move(event));
        start = end + 1;
    }
    rest_.erase(0, start);
    if (rest_.size() > kLineMax)
        rest_.clear();
}

} // namespace zncctl
