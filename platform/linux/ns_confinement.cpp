// ns_confinement.cpp - the record from which the spawner confines programs (helper/wire.hpp).
#include "confinement.hpp"
#include "ns_kinds.hpp"
#include "ns_settings.hpp"

#include "settings/settings_policy.hpp"

#include <cerrno>

namespace zn {

znc::MallocPtr<char[]> NamespaceSettings::confinement(std::size_t& size) const
{
    List<Text> entries;
    if (group_) {
        errno = cgroup_entries(group_.get(), entries);
        if (errno != 0)
            return nullptr;
    }
    wire::Confinement rules = {};
    rules.namespaces = CLONE_NEWNS | CLONE_NEWPID;
    for (const Kind& kind : kKinds)
        if (from(kind.kind) != NsChoice::From::kHost &&
            (kind.kind != NsKind::kCgroup || from(kind.kind) == NsChoice::From::kPath))
            rules.namespaces |= kind.flag;
    rules.ownControlGroup = is_new(NsKind::kCgroup) ? 1 : 0;
    rules.ownNetwork = is_new(NsKind::kNetwork) ? 1 : 0;
    rules.bounding = kDefaultCapabilities; // unless the configuration has capabilities
    rules.permitted = settings_.user.uid == 0 ? kDefaultCapabilities : 0;
    rules.effective = rules.permitted;
    rules.filterFlags = filterFlags_;
    rules.noNewPrivileges = settings_.noNewPrivileges.value_or(true) ? 1 : 0;
    return confinement_pack(rules, settings_, filter_.all(), std::move(entries), size);
}

} // namespace zn
