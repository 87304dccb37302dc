#include "confinement.hpp"

#include "ns_kinds.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

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

// The line of one clock for /proc/self/timens_offsets; none if it is not given.
int offset_line(char* text, std::size_t size, const char* clock, const TimeOffset& offset)
{
    return !offset.given
               ? 0
               : std::snprintf(text, size, "%s %lld %u\n", clock,
                               static_cast<long long>(offset.seconds), offset.nanoseconds);
}

bool append_offsets(const Settings& settings, List<Text>& texts)
{
    char text[128] = {};
    const int len = offset_line(text, sizeof text, "monotonic", settings.monotonic);
    offset_line(text + len, sizeof text - static_cast<std::size_t>(len), "boottime",
                settings.boottime);
    auto copy = znc::copy_text(text);
    return copy && texts.append(std::move(copy)) != nullptr;
}

bool apparmor_enabled()
{
    const znc::UniqueFd file(
        ::open("/sys/module/apparmor/parameters/enabled", O_RDONLY | O_CLOEXEC));
    char answer = 'N';
    return file && ::read(file.get(), &answer, 1) == 1 && answer == 'Y';
}

bool selinux_enabled()
{
    return ::access("/sys/fs/selinux/enforce", F_OK) == 0;
}

int refuse(SettingsFault& fault, const char* field, const char* module)
{
    std::snprintf(fault.field, sizeof fault.field, "%s", field);
    std::snprintf(fault.reason, sizeof fault.reason, "the kernel does not use %s", module);
    return ENOTSUP;
}

void set_capabilities(const Capabilities& wanted, wire::Confinement& rules)
{
    rules.bounding = wanted.bounding;
    rules.permitted = wanted.permitted;
    rules.effective = wanted.effective;
    rules.inheritable = wanted.inheritable;
    // The kernel refuses ambient capabilities that are not permitted and inheritable;
    // configurations contain them nevertheless.
    rules.ambient = wanted.ambient & wanted.permitted & wanted.inheritable;
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

} // namespace

znc::MallocPtr<char[]> confinement_pack(wire::Confinement rules, const Settings& settings,
                                        std::span<const wire::FilterCode> filter,
                                        List<Text> entries, std::size_t& size)
{
    constexpr std::uint32_t kUmask = 022;
    rules.uid = settings.user.uid;
    rules.gid = settings.user.gid;
    rules.umask = settings.user.umask.value_or(kUmask);
    rules.oomScore = settings.oomScoreAdj.value_or(wire::kNoOomScore);
    if (settings.capabilities.given)
        set_capabilities(settings.capabilities, rules);
    rules.entries = static_cast<std::uint32_t>(entries.size());
    if (!append_labels(settings, entries))
        return nullptr;
    rules.labels = (static_cast<std::uint32_t>(entries.size()) - rules.entries) / 2;
    const bool hasOffsets = settings.monotonic.given || settings.boottime.given;
    if (hasOffsets && !append_offsets(settings, entries))
        return nullptr;
    rules.offsets = hasOffsets ? 1 : 0;
    rules.ranges = static_cast<std::uint32_t>(settings.uidMappings.size());
    rules.limits = static_cast<std::uint32_t>(settings.rlimits.size());
    rules.filter = static_cast<std::uint32_t>(filter.size());
    rules.groups = static_cast<std::uint32_t>(settings.user.groups.size());
    size = sizeof rules + rules.limits * sizeof(wire::Limit) +
           rules.ranges * sizeof(wire::IdRange) + rules.filter * sizeof(wire::FilterCode) +
           rules.groups * sizeof(std::uint32_t);
    for (const Text& entry : entries)
        size += std::strlen(entry.get()) + 1;
    rules.size = size;
    auto memory = znc::malloc_array<char>(size);
    if (!memory)
        return nullptr;
    Block block(memory.get());
    block.add(&rules, sizeof rules);
    for (const Rlimit& limit : settings.rlimits) {
        const wire::Limit one = {static_cast<std::uint64_t>(limit.resource), limit.soft,
                                 limit.hard};
        block.add(&one, sizeof one);
    }
    for (const IdMapping& mapping : settings.uidMappings) {
        const wire::IdRange one = {mapping.inside, mapping.outside, mapping.count, 0};
        block.add(&one, sizeof one);
    }
    block.add(filter.data(), filter.size() * sizeof(wire::FilterCode));
    block.add(settings.user.groups.begin(), settings.user.groups.size() * sizeof(std::uint32_t));
    for (const Text& entry : entries)
        block.add(entry.get(), std::strlen(entry.get()) + 1);
    return memory;
}

// A container keeps its copy as long as it exists, so the copy has no memory to spare.
int copy_filter(const List<sock_filter>& from, List<wire::FilterCode>& to)
{
    List<wire::FilterCode> copy;
    if (!copy.reserve(from.size()))
        return ENOMEM;
    for (const sock_filter& one : from)
        copy.append({one.code, one.jt, one.jf, one.k});
    to = std::move(copy);
    return 0;
}

int labels_check(const Settings& settings, SettingsFault& fault)
{
    if (has_label(settings.apparmorProfile) && !apparmor_enabled())
        return refuse(fault, "process.apparmorProfile", "AppArmor");
    if (has_label(settings.selinuxLabel) && !selinux_enabled())
        return refuse(fault, "process.selinuxLabel", "SELinux");
    if (has_label(settings.mountLabel) && !selinux_enabled())
        return refuse(fault, "linux.mountLabel", "SELinux");
    return 0;
}

} // namespace zn
