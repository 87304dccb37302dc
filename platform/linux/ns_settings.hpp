// ns_settings.hpp - applies the settings of a configuration (settings/settings.hpp) to a namespace:
// which kernel namespaces it has, what is changed in them before programs run, its control group,
// and the confinement of programs that is kept in its record. Used by the namespace service.
// Settings that are not supported are refused before anything is created.
#ifndef ZN_NS_SETTINGS_HPP
#define ZN_NS_SETTINGS_HPP

#include "cgroup/cgroup.hpp"
#include "helper/wire.hpp"
#include "keeper_link.hpp"
#include "ns_user.hpp"
#include "settings/seccomp.hpp"
#include "settings/settings_reader.hpp"
#include "zarnel/types.h"

namespace zn {

class NamespaceSettings {
  public:
    // Reads a configuration; null: the defaults. `privileged`: settings beyond the defaults are
    // allowed. 0, or an error number with `fault` set.
    int read(const char* document, bool privileged, SettingsFault& fault);

    // Uses the default filter if the configuration has none. Callers hold the lock of the namespace
    // service, which protects the compiled filter. 0 or an error number.
    int use_default_filter();

    // Whether programs run in a user namespace.
    [[nodiscard]] bool wants_user() const;
    // Whether the user namespace has one of these users or groups of the host.
    [[nodiscard]] bool has_host_ids(std::uint32_t first, std::uint32_t count) const;
    // Maps the ids from 0 on to a range of the host. 0 or an error number.
    int map_range(std::uint32_t first, std::uint32_t count);
    // Creates the user namespace if one is wanted. 0, or an error number with `fault` set.
    int make_user(SettingsFault& fault);
    [[nodiscard]] const UserNamespace& user() const { return user_; }

    // The CLONE_NEW flags of the keeper.
    [[nodiscard]] unsigned long clone_flags() const;

    // Creates the control group of the namespace `id`, if the machine has control groups; `name` is
    // part of its path. `taken` tells whether a group overlaps that of another namespace. 0, or an
    // error number with `fault` set.
    int make_group(nsid_t id, const char* name, bool (*taken)(const char* path),
                   SettingsFault& fault);
    [[nodiscard]] const char* group() const { return group_ ? group_.get() : ""; }

    // Sets what is known of a namespace that another process created: its control group, and the
    // process in its user namespace, which may be absent. 0 or an error number.
    int adopt(const char* group, pid_t holder, znc::UniqueFd pidfd, znc::UniqueFd alive);

    // Lets a new keeper join existing namespaces, and those that were created with the user
    // namespace.
    int prepare(Keeper& keeper, SettingsFault& fault) const;

    [[nodiscard]] std::uint64_t root_bits() const;
    // The host's id of the group that terminals belong to.
    [[nodiscard]] std::uint32_t terminal_group() const;
    // The host name of the container `name`; "": that of the UTS namespace stays.
    [[nodiscard]] const char* host_name(const char* name) const;

    // Creates devices, sets kernel parameters, hides paths and makes paths read-only, when the root
    // and all mounts exist.
    int seal(Keeper& keeper, SettingsFault& fault) const;

    // The confinement of programs as it is stored in the record; null with errno set.
    [[nodiscard]] znc::MallocPtr<char[]> confinement(std::size_t& size) const;

  private:
    [[nodiscard]] NsChoice::From from(NsKind kind) const;
    [[nodiscard]] bool is_new(NsKind kind) const { return from(kind) == NsChoice::From::kNew; }
    [[nodiscard]] unsigned long user_owned() const;
    int check(bool privileged, SettingsFault& fault) const;
    int check_ids(SettingsFault& fault) const;
    int join(Keeper& keeper, int descriptor, unsigned long kinds) const;
    int compile_filter(SettingsFault& fault);
    int take_filter(const SeccompCode& code);

    Settings settings_;
    List<wire::FilterCode> filter_;
    unsigned filterFlags_ = 0;
    bool unmasked_ = false;
    Text group_;
    UserNamespace user_; // refers to the mappings in settings_
};

} // namespace zn

#endif
