// engine_settings.hpp - translates a configuration for a container of an engine: namespaces and
// restrictions of its programs. Unlike the namespace service, it adds no default restrictions.
// Called by the other files of this folder.
#ifndef ZN_ENGINE_SETTINGS_HPP
#define ZN_ENGINE_SETTINGS_HPP

#include "base/owned.hpp"
#include "helper/wire.hpp"
#include "settings/settings_reader.hpp"

namespace zn {

struct EngineNamespace {
    NsKind kind;
    unsigned long flag;
    const char* name;
};
// Those that may be created or joined besides the mount, PID and user namespaces.
inline constexpr unsigned kEngineNamespaces = 5;
extern const EngineNamespace kEngineNamespace[kEngineNamespaces];

// Adds the rules of the devices that every container has. 0 or ENOMEM.
int devices_complete(List<DeviceRule>& rules);

class EngineSettings {
  public:
    // 0, or an error number with `fault` set: EINVAL, ENOTSUP, ENOMEM.
    int read(const char* document, SettingsFault& fault);

    [[nodiscard]] const Settings& settings() const { return settings_; }
    [[nodiscard]] bool is_rootless() const { return isRootless_; } // see znEngineRootless
    [[nodiscard]] NsChoice::From from(NsKind kind) const;
    [[nodiscard]] const char* path(NsKind kind) const;

    // The CLONE_NEW flags with which the helper is started. Its cgroup namespace is made later.
    [[nodiscard]] unsigned long clone_flags() const;
    // Those of a second process, which is created in its control group or in a user, time or joined
    // PID namespace, perhaps CLONE_PARENT alone; 0: there is none. Without the cgroup namespace,
    // too.
    [[nodiscard]] unsigned long created_flags() const;
    // Has a second process created. In cgroup v2 it need not be moved into its group, for which the
    // kernel would wait.
    void create_in_group() { createsInGroup_ = true; }

    // Makes the record describe programs in a user namespace with these mappings.
    int set_users(const List<IdMapping>& uids);

    // Completes the device rules: the devices that every container has are always allowed.
    int complete_devices();
    // Discards the device rules: only root of the host can apply them.
    void drop_devices() { settings_.resources.devices = {}; }
    [[nodiscard]] const Resources& resources() const { return settings_.resources; }

    // A file with the confinement, for the helper. `group`: the control group to enter, "" none.
    // `join`: the CLONE_NEW flags of the namespaces to join; 0 for the first process. `placed`: the
    // first process waits until it has been moved into its group. Invalid with errno set.
    [[nodiscard]] znc::UniqueFd record(const char* group, unsigned long join,
                                       bool placed = false) const;
    // The same with the files through which the control groups are entered.
    [[nodiscard]] znc::UniqueFd record(List<Text> entries, unsigned long join,
                                       bool placed = false) const;

  private:
    int check(SettingsFault& fault) const;
    // Whether a caller without the rights of the host can apply what is asked for.
    int check_rootless(SettingsFault& fault);
    [[nodiscard]] unsigned long new_namespaces() const;

    Settings settings_;
    List<wire::FilterCode> filter_;
    unsigned filterFlags_ = 0;
    bool hasUsers_ = false;
    bool createsInGroup_ = false;
    bool isRootless_ = false;
    bool keepsGroups_ = false; // the kernel denies setgroups
};

} // namespace zn

#endif
