#include "priorities.hpp"

#include "log.hpp"

#include <array>
#include <cerrno>
#include <cstdio>

#include "zarnel/ns.h"

#include "zncContainerLib.hpp"

namespace zncd {
namespace {

constexpr int kNormalPriority = 100; // smaller is more urgent

void say_once(const char* containerId, int priority)
{
    static bool said = false;
    if (said)
        return;
    said = true;
    log(Level::kWarning,
        "container %s asks for the urgent priority %d and gets the normal one, as all do without "
        "--allow-urgent",
        containerId, priority);
}

} // namespace

void settle_priority(const char* containerId, bool allowUrgent)
{
    std::array<char, 256> id{};
    std::snprintf(id.data(), id.size(), "%s", containerId);
    CONTAINER_STATE state = {};
    if (zncContainerStateGet(id.data(), &state) != OK)
        return;
    const int priority = state.pCtx->pConfig->zarnel->priority;
    if (priority >= kNormalPriority)
        return;
    if (!allowUrgent)
        say_once(containerId, priority);
    else if (znnsUrgentAllow(state.pCtx->nsId, TRUE) != OK)
        log(Level::kError, "container %s cannot be allowed its priority: error %d", containerId,
            errno);
}

} // namespace zncd
