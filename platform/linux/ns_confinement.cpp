// ns_confinement.cpp - the record from which the spawner confines programs (helper/wire.hpp).
#include "confinement.hpp"
#include "ns_kinds.hpp"
#include "ns_settings.hpp"

#include "settings/settings_policy.hpp"

#include <cerrno>
#include <cstdio>

namespace zn {
namespace {

void set_capabilities(const Settings& settings, wire::Confinement& rules)
{
    const Capabilities& wanted = settings.capabilities;
    if (wanted.given) {
        rules.bounding = wanted.bounding;
        rules.permitted = wanted.permitted;
        rules.effective = wanted.effective;
        rules.inheritable = wanted.inheritable;
        // The kernel refuses others, which documents contain nevertheless.
        rules.ambient = wanted.ambient & wanted.permitted & wanted.inheritable;
        return;
    }
    rules.bounding = kDefaultCapabilities;
    rules.permitted = settings.user.uid == 0 ? kDefaultCapabilities : 0;
    rules.effective = rules.permitted;
}

} // namespace

znc::MallocPtr<char[]> NamespaceSettings::confinement(std::size_t& size) const
{
    constexpr std::uint32_t kUmask = 022;
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
    set_capabilities(settings_, rules);
    rules.uid = settings_.user.uid;
    rules.gid = settings_.user.gid;
    rules.umask = settings_.user.umask.value_or(kUmask);
    rules.filterFlags = filterFlags_;
    rules.oomScore = settings_.oomScoreAdj.value_or(wire::kNoOomScore);
    rules.noNewPrivileges = settings_.noNewPrivileges.value_or(true) ? 1 : 0;
    return confinement_pack(rules, settings_, filter_.all(), std::move(entries), size);
}

} // namespace zn
