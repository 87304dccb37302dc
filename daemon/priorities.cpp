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

void warn_once(const char* containerId, int priority)
{
    static bool warned = false;
    if (warned)
        return;
    warned = true;
    log(Level::kWarning,
        "container %s asks for the urgent priority %d but runs at normal priority: zncd was "
        "started without --allow-urgent",
        containerId, priority);
}

} // namespace

void apply_priority_setting(const char* containerId, bool allowUrgent)
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
        warn_once(containerId, priority);
    else if (znnsUrgentAllow(state.pCtx->nsId, TRUE) != OK)
        log(Level::kError, "cannot allow container %s its priority: error %d", containerId, errno);
}

} // namespace zncd
