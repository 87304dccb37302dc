// Sends TERM, so that the program can end by itself, and after a timeout KILL to all processes of
// the container.
#include "cli/containers/container.hpp"
#include "cli/containers/network.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"
#include "front/words.hpp"

#include <chrono>
#include <fmt/format.h>
#include <thread>

namespace zncctl {
namespace {

constexpr int kSignalTerm = 15;
constexpr int kSignalKill = 9;
constexpr std::chrono::seconds kKillTime(10);

using Clock = std::chrono::steady_clock;

// Waits until the container does not run any more. Returns its status then, or STATE_RUNNING after
// a timeout.
CONTAINER_STATUS wait_while_running(const std::string& id, std::chrono::milliseconds time)
{
    const auto deadline = Clock::now() + time;
    for (;;) {
        const CONTAINER_STATUS status = status_of(id);
        if (status != STATE_RUNNING || Clock::now() >= deadline)
            return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool send(const std::string& id, int signo, unsigned option)
{
    // ESRCH: the program has ended, but other processes of the container may still run.
    const STATUS sent = call_library([&] { return zncKill(id.c_str(), signo, option); });
    if (sent != OK && errno != ESRCH)
        return false;
    // The processes of a paused container receive the signal when they are resumed, before they do
    // anything else.
    return resume_if_paused(id) == OK;
}

int stop(const std::string& id, std::chrono::milliseconds time)
{
    if (!send(id, kSignalTerm, 0))
        return daemon_failure(errno, id);
    CONTAINER_STATUS status = wait_while_running(id, time);
    if (status == STATE_RUNNING) {
        if (!send(id, kSignalKill, ZNC_OPT_WHOLE_NAMESPACE))
            return daemon_failure(errno, id);
        status = wait_while_running(id, kKillTime);
    }
    if (status == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    if (status == STATE_RUNNING)
        return failure(id, "it is still running, although it was killed", kExitNoDaemon);
    end_network_of_stopped(id);
    return kExitOk;
}

} // namespace

int cmd_stop(const Arguments& args)
{
    const char* text = args.value("time", "10");
    const auto seconds = to_number<unsigned>(text);
    if (!seconds || *seconds > 1000000)
        return usage_failure(fmt::format("'{}' is not a valid number of seconds", text));
    return for_each_id(args.all_operands(), args.has("quiet"), [&](const std::string& id) {
        return stop(id, std::chrono::seconds(*seconds));
    });
}

} // namespace zncctl
