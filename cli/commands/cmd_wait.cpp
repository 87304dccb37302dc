#include "cli/containers/container.hpp"
#include "commands.hpp"
#include "front/escape.hpp"
#include "front/output.hpp"
#include "front/record.hpp"
#include "front/words.hpp"

#include <chrono>
#include <fmt/format.h>
#include <thread>

namespace zncctl {
namespace {

using Clock = std::chrono::steady_clock;

enum class Outcome { kEnded, kRunning, kLost };

struct End {
    int code = 0;
    bool out_of_memory = false;
};

// Checks the record once, without waiting.
Outcome check_record(int dir, End& end)
{
    const bool kept = record_is_kept(dir);
    const auto record = read_record(dir);
    if (record && record->exit_code) {
        end = {*record->exit_code, record->out_of_memory};
        return Outcome::kEnded;
    }
    return kept ? Outcome::kRunning : Outcome::kLost;
}

int report_lost(const std::string& id)
{
    return failure(id, "its exit code is unknown: the process that started it did not wait for it");
}

// Returns kExitOk with the end of the program in `end`, or another exit status after printing a
// message.
int wait_for(const std::string& id, Clock::time_point deadline, End& end)
{
    std::optional<RecordEnd> first;
    for (;;) {
        const znc::UniqueFd dir = open_record(id);
        if (dir && (!first || !*first)) // before the start there may be a directory without a lock
            first.emplace(dir.get());
        const Outcome outcome = dir ? check_record(dir.get(), end) : Outcome::kRunning;
        if (outcome == Outcome::kEnded)
            return kExitOk;
        if (outcome == Outcome::kLost || !dir) {
            const CONTAINER_STATUS status = status_of(id);
            const int error = errno;
            // A container with --rm is deleted at its end.
            if (const auto code = first ? first->exit_code() : std::nullopt;
                status == STATE_UNKNOWN && code) {
                end = {*code, false};
                return kExitOk;
            }
            if (status == STATE_UNKNOWN)
                return daemon_failure(error, id);
            // The exit code may have been recorded since the record was checked.
            if (status == STATE_STOPPED && (!dir || check_record(dir.get(), end) == Outcome::kLost))
                return report_lost(id);
        }
        if (Clock::now() >= deadline)
            return failure(id, "timed out: it has not ended", kExitNoDaemon);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace

int cmd_wait(const Arguments& args)
{
    auto deadline = Clock::time_point::max();
    if (const char* text = args.value("timeout")) {
        const auto seconds = to_number<unsigned>(text);
        if (!seconds || *seconds > 1000000)
            return usage_failure(fmt::format("'{}' is not a valid number of seconds", text));
        deadline = Clock::now() + std::chrono::seconds(*seconds);
    }
    return for_each_id(args.all_operands(), true, [&](const std::string& id) {
        End end;
        const int status = wait_for(id, deadline, end);
        if (status != kExitOk)
            return status;
        if (end.out_of_memory)
            print_hint(
                fmt::format("{} was killed because its memory limit was reached", printable(id)));
        return print_result(std::to_string(end.code));
    });
}

} // namespace zncctl
