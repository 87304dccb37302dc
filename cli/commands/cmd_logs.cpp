#include "cli/containers/container.hpp"
#include "cli/containers/follow.hpp"
#include "cli/containers/log_lines.hpp"
#include "commands.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/record.hpp"
#include "front/words.hpp"

#include <chrono>
#include <fmt/format.h>
#include <thread>

namespace zncctl {
namespace {

// The last lines of a text. The last one may lack its newline.
std::string_view last_lines(std::string_view text, std::size_t lines)
{
    if (lines == 0)
        return "";
    std::size_t at = text.size() - (text.ends_with('\n') ? 1 : 0);
    for (std::size_t i = 0; i < lines; i++) {
        if (at == 0)
            return text;
        at = text.rfind('\n', at - 1);
        if (at == text.npos)
            return text;
    }
    return text.substr(at + 1);
}

// When the program has ended, the log is complete as soon as its exit code is recorded.
void wait_for_rest(const std::string& id, int dir)
{
    constexpr std::chrono::seconds kTimeout(2);
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    const auto is_incomplete = [&] {
        const auto record = read_record(dir);
        return record && !record->exit_code && record_is_kept(dir);
    };
    if (!is_incomplete() || status_of(id) != STATE_STOPPED)
        return;
    while (is_incomplete() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

int print_log(const Arguments& args, int dir, const std::optional<std::size_t>& tail,
              std::time_t since)
{
    LogReader reader(dir, false);
    LogLines lines(args.has("timestamps"), since);
    const auto read = [&] {
        return args.has("timestamps") || since != 0 ? lines.add(reader.read_parts())
                                                    : reader.read();
    };
    const std::string text = read();
    const std::string_view shown = tail ? last_lines(text, *tail) : std::string_view(text);
    if (!write_all(STDOUT_FILENO, shown) || (args.has("follow") && !follow(dir, read, nullptr)))
        return local_failure(errno, "standard output");
    return kExitOk;
}

} // namespace

int cmd_logs(const Arguments& args)
{
    std::optional<std::size_t> tail;
    const std::string_view wanted = args.value("tail", "all");
    if (wanted != "all" && !(tail = to_number<std::size_t>(wanted)))
        return usage_failure(fmt::format("'{}' is not a valid number of lines", printable(wanted)));
    std::optional<std::time_t> since = 0;
    if (const char* text = args.value("since"))
        since = read_past_time(text, std::time(nullptr));
    if (!since)
        return usage_failure(fmt::format("--since is a time such as \"2026-11-22T13:00:00Z\" or "
                                         "\"10m\", not '{}'",
                                         printable(args.value("since"))));
    const std::string id = args.operand(0);
    znc::UniqueFd dir;
    if (const int status = open_log_of(id, dir); status != kExitOk)
        return status;
    wait_for_rest(id, dir.get());
    return print_log(args, dir.get(), tail, *since);
}

} // namespace zncctl
