#include "systemd_bus.hpp"

#include "systemd_connection.hpp"
#include "zarnel/engine.h"

namespace zncrun {

bool has_systemd_bus()
{
    return true;
}

bool uses_user_manager()
{
    return znEngineRootless() != FALSE;
}

SystemdBus::SystemdBus() : connection_(std::make_unique<Connection>()) {}
SystemdBus::~SystemdBus() = default;

std::string SystemdBus::manager_group()
{
    return connection_->text(
        connection_->property(kSystemdManagerPath, kSystemdManager, "ControlGroup", "s"), 's');
}

std::string SystemdBus::scope_group(const std::string& unit)
{
    return connection_->text(
        connection_->property(connection_->unit_path(unit), kSystemdScope, "ControlGroup", "s"),
        's');
}

void SystemdBus::start_scope(const std::string& unit, pid_t pid, const UnitProperties& properties,
                             bool& accepted)
{
    Connection& bus = *connection_;
    const std::string what = fmt::format("cannot start {}", unit);
    bus.watch_jobs();
    // A scope of this name that failed would be in the way.
    const auto forget = bus.message("ResetFailedUnit");
    bus.add(forget, 's', unit.c_str());
    bus.call(forget, what, "org.freedesktop.systemd1.NoSuchUnit");
    const auto start = bus.message("StartTransientUnit");
    bus.add(start, 's', unit.c_str());
    bus.add(start, 's', "fail");
    bus.add_list(start, properties, static_cast<std::uint32_t>(pid));
    bus.add_no_units(start);
    const auto answer = bus.call(start, what);
    accepted = true;
    bus.wait_for_job(answer, what);
}

void SystemdBus::set_properties(const std::string& unit, const UnitProperties& properties)
{
    Connection& bus = *connection_;
    const int untilStop = 1;
    const auto change = bus.message("SetUnitProperties");
    bus.add(change, 's', unit.c_str());
    bus.add(change, 'b', &untilStop);
    bus.add_list(change, properties);
    bus.call(change, fmt::format("cannot change {}", unit));
}

UnitLimits SystemdBus::scope_limits(const std::string& unit)
{
    const std::string path = connection_->unit_path(unit);
    return {connection_->number(path, znEngineGroupVersion() == 1 ? "MemoryLimit" : "MemoryMax"),
            connection_->number(path, "CPUQuotaPeriodUSec"),
            connection_->number(path, "CPUQuotaPerSecUSec")};
}

void SystemdBus::stop(const std::string& unit)
{
    constexpr char kAbsent[] = "org.freedesktop.systemd1.NoSuchUnit";
    Connection& bus = *connection_;
    const std::string what = fmt::format("cannot stop {}", unit);
    bus.watch_jobs();
    const auto stop = bus.message("StopUnit");
    bus.add(stop, 's', unit.c_str());
    bus.add(stop, 's', "replace");
    if (const auto answer = bus.call(stop, what, kAbsent))
        bus.wait_for_job(answer, what);
    const auto forget = bus.message("ResetFailedUnit");
    bus.add(forget, 's', unit.c_str());
    bus.call(forget, what, kAbsent);
}

} // namespace zncrun
