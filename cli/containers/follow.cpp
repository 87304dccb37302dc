#include "follow.hpp"

#include "container.hpp"
#include "front/files.hpp"
#include "front/record.hpp"

#include <chrono>
#include <thread>

namespace zncctl {

int open_log_of(const std::string& id, znc::UniqueFd& dir)
{
    dir = open_record(id);
    const auto record = dir ? read_record(dir.get()) : std::nullopt;
    if (record && record->logged)
        return kExitOk;
    if (status_of(id) == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    return failure(id, "it has no log: zncctl has not started it", kExitWrongState);
}

bool follow(int dir, const std::function<std::string()>& read,
            const std::function<void()>& meanwhile)
{
    for (;;) {
        // Check before reading: then everything that was written before the monitor ended is read.
        const bool still_kept = record_is_kept(dir);
        const std::string text = read();
        if (!write_all(STDOUT_FILENO, text))
            return false;
        if (!still_kept)
            return true;
        if (meanwhile)
            meanwhile();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace zncctl
