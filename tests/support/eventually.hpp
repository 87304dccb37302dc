// eventually.hpp - waits for a condition, up to a time limit that is long enough for any machine,
// however busy.
#ifndef EVENTUALLY_HPP
#define EVENTUALLY_HPP

#include <chrono>
#include <thread>

// Returns whether the condition becomes true within a minute.
template <class Condition> bool eventually(Condition condition)
{
    constexpr std::chrono::minutes kLimit(1);
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
