// systemd_scope.hpp - control groups of containers as scopes of systemd (--systemd-cgroup). Called
// by the commands that create, update and delete containers.
#ifndef ZNC_OCI_SYSTEMD_SCOPE_HPP
#define ZNC_OCI_SYSTEMD_SCOPE_HPP

#include "base/not_copied.hpp"
#include "bundle.hpp"
#include "systemd_bus.hpp"
#include "systemd_name.hpp"

namespace zncrun {

// The scope of a container that is being created. It is stopped at the end of this object unless it
// is kept.
class NewScope : znc::NotCopied {
  public:
    // Connects to systemd and checks everything that can be checked before. `name`: for a
    // configuration without linux.cgroupsPath.
    NewScope(const Bundle& bundle, const std::string& name);
    ~NewScope();

    [[nodiscard]] const std::string& unit() const { return name_.unit; }
    // Known before the scope is started.
    [[nodiscard]] const std::string& group() const { return group_; }

    // Makes the plan start the scope, by place().
    void add_to(ZN_ENGINE_PLAN& plan);
    // Why place() failed; "" if it did not.
    [[nodiscard]] const std::string& failure() const { return failure_; }

    void keep() { started_ = false; }

  private:
    static STATUS place(const ZN_ENGINE_PROCESS* process, void* scope);
    void start(pid_t pid);

    SystemdBus bus_;
    ScopeName name_;
    std::string group_;
    UnitProperties properties_;
    std::string failure_;
    bool started_ = false;
};

// Tells systemd the limits in `resources` (a "linux.resources" object), which have been applied to
// the group of the scope.
void update_scope(const std::string& unit, const std::string& resources);

// Lets systemd forget a scope whose group has been removed. Returns why it failed; "" if it did
// not. Then systemd keeps at most a unit without processes.
std::string remove_scope(const std::string& unit);

} // namespace zncrun

#endif
