// at_once.hpp - calls a function for each of many elements, from a few threads. For requests to the
// daemon: most of a request is waiting, during which another one can be under way. Used by the
// lists of containers.
#ifndef ZNC_CLI_CONTAINERS_AT_ONCE_HPP
#define ZNC_CLI_CONTAINERS_AT_ONCE_HPP

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <future>
#include <system_error>
#include <vector>

namespace zncctl {

// Calls action(index) once for each index below `count`, in any order. The calls must not depend on
// each other. Returns after the last one; if calls throw, one of their exceptions is thrown then.
template <class Action> void for_each_at_once(std::size_t count, const Action& action)
{
    constexpr std::size_t kThreadsMax = 4;
    constexpr std::size_t kWorthAThread = 8; // elements: fewer take less time than a thread's start
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t index = next++; index < count; index = next++)
            action(index);
    };
    std::vector<std::future<void>> others; // their destructors wait
    try {
        while (others.size() + 1 < std::min(kThreadsMax, count / kWorthAThread))
            others.push_back(std::async(std::launch::async, work));
    } catch (const std::system_error&) {
        // No thread can be created: those that exist do the work.
    }
    work();
    for (std::future<void>& other : others)
        other.get();
}

} // namespace zncctl

#endif
