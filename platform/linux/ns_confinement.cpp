// ns_confinement.cpp - the record from which the spawner confines programs (helper/wire.hpp).
#include "ns_kinds.hpp"
#include "ns_settings.hpp"

#include "settings/settings_policy.hpp"

#include <cerrno>
#include <cstdio>

namespace zn {
namespace {

bool append_label(List<Text>& texts, const char* file, const char* before, const Text& label)
{
    const std::size_t size = std::strlen(before) + std::strlen(label.get()) + 1;
    auto name = znc::copy_text(file);
    auto value = znc::malloc_array<char>(size);
    if (!name || !value)
        return false;
    std::snprintf(value.get(), size, "%s%s", before, label.get());
    return texts.append(std::move(name)) != nullptr && texts.append(std::move(value)) != nullptr;
}

// The files below /proc/self/attr, and what the spawner writes to them. False without memory.
bool append_labels(const Settings& settings, List<Text>& texts)
{
    return (!has_label(settings.apparmorProfile) ||
            append_label(texts, "apparmor/exec", "exec ", settings.apparmorProfile)) &&
           (!has_label(settings.selinuxLabel) ||
            append_label(texts, "exec", "", settings.selinuxLabel));
}

// Appends arrays to a block of memory that is large enough.
class Block {
  public:
    explicit Block(char* at) : at_(at) {}
    void add(const void* from, std::size_t size)
    {
        if (size != 0)
            std::memcpy(at_, from, size);
        at_ += size;
    }

  private:
    char* at_;
};

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
    List<Text> texts;
    if (group_) {
        errno = cgroup_entries(group_.get(), texts);
        if (errno != 0)
            return nullptr;
    }
    wire::Confinement rules = {};
    rules.entries = static_cast<std::uint32_t>(texts.size());
    if (!append_labels(settings_, texts))
        return nullptr;
    rules.labels = (static_cast<std::uint32_t>(texts.size()) - rules.entries) / 2;
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
    rules.limits = static_cast<std::uint32_t>(settings_.rlimits.size());
    rules.ranges = static_cast<std::uint32_t>(settings_.uidMappings.size());
    rules.filter = static_cast<std::uint32_t>(filter_.size());
    rules.groups = static_cast<std::uint32_t>(settings_.user.groups.size());
    size = sizeof rules + rules.limits * sizeof(wire::Limit) +
           rules.ranges * sizeof(wire::IdRange) + rules.filter * sizeof(wire::FilterCode) +
           rules.groups * sizeof(std::uint32_t);
    for (const Text& text : texts)
        size += std::strlen(text.get()) + 1;
    rules.size = size;
    auto memory = znc::malloc_array<char>(size);
    if (!memory)
        return nullptr;
    Block block(memory.get());
    block.add(&rules, sizeof rules);
    for (const Rlimit& limit : settings_.rlimits) {
        const wire::Limit one = {static_cast<std::uint64_t>(limit.resource), limit.soft,
                                 limit.hard};
        block.add(&one, sizeof one);
    }
    for (const IdMapping& mapping : settings_.uidMappings) {
        const wire::IdRange one = {mapping.inside, mapping.outside, mapping.count, 0};
        block.add(&one, sizeof one);
    }
    block.add(filter_.begin(), filter_.size() * sizeof(wire::FilterCode));
    block.add(settings_.user.groups.begin(), settings_.user.groups.size() * sizeof(std::uint32_t));
    for (const Text& text : texts)
        block.add(text.get(), std::strlen(text.get()) + 1);
    return memory;
}

} // namespace zn
