// systemd_absent.cpp - takes the place of systemd_bus.cpp where zncrun is built without the headers
// of libsystemd.
#include "systemd_bus.hpp"
#include "zarnel/engine.h"

namespace zncrun {

class SystemdBus::Connection {};

bool has_systemd_bus()
{
    return false;
}

bool uses_user_manager()
{
    return znEngineRootless() != FALSE;
}

SystemdBus::SystemdBus()
{
    throw Failure("systemd: zncrun was built without it");
}

SystemdBus::~SystemdBus() = default;

// No object exists on which these could be called.
std::string SystemdBus::manager_group()
{
    return "";
}

std::string SystemdBus::scope_group(const std::string& /*unit*/)
{
    return "";
}

void SystemdBus::start_scope(const std::string& /*unit*/, pid_t /*pid*/,
                             const UnitProperties& /*properties*/, bool& /*accepted*/)
{
}

void SystemdBus::set_properties(const std::string& /*unit*/, const UnitProperties& /*properties*/)
{
}

UnitLimits SystemdBus::scope_limits(const std::string& /*unit*/)
{
    return {};
}

void SystemdBus::stop(const std::string& /*unit*/) {}

} // namespace zncrun
