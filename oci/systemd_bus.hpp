// systemd_bus.hpp - the service manager (systemd) on its bus. The library for it is loaded when a
// connection is opened, so that zncrun neither needs it nor starts more slowly. All waits are
// bounded. Called by systemd_scope.cpp.
#ifndef ZNC_OCI_SYSTEMD_BUS_HPP
#define ZNC_OCI_SYSTEMD_BUS_HPP

#include "base/not_copied.hpp"
#include "systemd_property.hpp"

#include <memory>
#include <string>
#include <sys/types.h>

namespace zncrun {

// Whether zncrun was built with it.
bool has_systemd_bus();

// Whether the containers of this caller belong to the service manager of its user, not to that of
// the system.
bool uses_user_manager();

class SystemdBus : znc::NotCopied {
  public:
    // Connects to the manager of the system, or of the user. Fails if the library is missing or the
    // bus cannot be reached.
    SystemdBus();
    ~SystemdBus();

    // The control groups of the manager and of a scope.
    std::string manager_group();
    std::string scope_group(const std::string& unit);

    // Starts a scope with the process `pid` in it and waits until systemd has done so. `accepted`
    // is set once the unit belongs to the caller, even if starting it fails then.
    void start_scope(const std::string& unit, pid_t pid, const UnitProperties& properties,
                     bool& accepted);

    // Changes properties until the unit is stopped.
    void set_properties(const std::string& unit, const UnitProperties& properties);

    // The limits that the scope has.
    UnitLimits scope_limits(const std::string& unit);

    // Stops the unit, waits until systemd has done so, and lets systemd forget that it failed. A
    // unit that does not exist is no failure.
    void stop(const std::string& unit);

  private:
    class Connection;
    std::unique_ptr<Connection> connection_;
};

} // namespace zncrun

#endif
