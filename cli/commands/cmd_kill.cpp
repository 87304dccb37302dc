#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "cli/containers/signal_number.hpp"
#include "commands.hpp"
#include "front/words.hpp"

#include <fmt/format.h>

namespace {

constexpr int kSignalKill = 9;

} // namespace

int zncctl::signal_number(const char* text)
{
    if (const auto number = to_number<int>(text))
        return *number >= 0 ? *number : -1;
    std::string name(text);
    for (char& c : name)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    const std::size_t prefix = name.starts_with("SIG") ? 3 : 0;
    return zncUtilSignalNo(name.c_str() + prefix);
}

int zncctl::cmd_kill(const Arguments& args)
{
    std::vector<std::string> ids = args.all_operands();
    std::string wanted = args.value("signal", "TERM");
    // "kill ID SIGNAL", as runtimes have it, unless that is the id of a container.
    if (!args.has("signal") && ids.size() == 2 && signal_number(ids[1].c_str()) >= 0 &&
        status_of(ids[1]) == STATE_UNKNOWN) {
        wanted = ids[1];
        ids.pop_back();
    }
    const int signo = signal_number(wanted.c_str());
    if (signo < 0)
        return usage_failure(fmt::format("unknown signal '{}'", wanted));
    const unsigned option = args.has("all") ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    return for_each_id(ids, args.has("quiet"), [&](const std::string& id) {
        if (call_library([&] { return zncKill(id.c_str(), signo, option); }) != OK)
            return daemon_failure(errno, id);
        // Other signals wait until the container is resumed. Send KILL before resuming, so that no
        // process continues to run.
        if (signo == kSignalKill && resume_if_paused(id) != OK)
            return local_failure(errno, id);
        return static_cast<int>(kExitOk);
    });
}
