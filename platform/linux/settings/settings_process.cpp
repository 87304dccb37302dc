// settings_process.cpp - reads the section "process".
#include "settings_policy.hpp"
#include "settings_sections.hpp"

#include "zarnel/ns.h"

#include <linux/capability.h>
#include <sys/resource.h>

namespace zn {
namespace {

static_assert(RLIM_INFINITY == UINT64_MAX);

constexpr std::size_t kGroupsMax = 65536; // NGROUPS_MAX of the kernel

constexpr Word<unsigned> kCapabilityNames[] = {
    {"CAP_CHOWN", CAP_CHOWN},
    {"CAP_DAC_OVERRIDE", CAP_DAC_OVERRIDE},
    {"CAP_DAC_READ_SEARCH", CAP_DAC_READ_SEARCH},
    {"CAP_FOWNER", CAP_FOWNER},
    {"CAP_FSETID", CAP_FSETID},
    {"CAP_KILL", CAP_KILL},
    {"CAP_SETGID", CAP_SETGID},
    {"CAP_SETUID", CAP_SETUID},
    {"CAP_SETPCAP", CAP_SETPCAP},
    {"CAP_LINUX_IMMUTABLE", CAP_LINUX_IMMUTABLE},
    {"CAP_NET_BIND_SERVICE", CAP_NET_BIND_SERVICE},
    {"CAP_NET_BROADCAST", CAP_NET_BROADCAST},
    {"CAP_NET_ADMIN", CAP_NET_ADMIN},
    {"CAP_NET_RAW", CAP_NET_RAW},
    {"CAP_IPC_LOCK", CAP_IPC_LOCK},
    {"CAP_IPC_OWNER", CAP_IPC_OWNER},
    {"CAP_SYS_MODULE", CAP_SYS_MODULE},
    {"CAP_SYS_RAWIO", CAP_SYS_RAWIO},
    {"CAP_SYS_CHROOT", CAP_SYS_CHROOT},
    {"CAP_SYS_PTRACE", CAP_SYS_PTRACE},
    {"CAP_SYS_PACCT", CAP_SYS_PACCT},
    {"CAP_SYS_ADMIN", CAP_SYS_ADMIN},
    {"CAP_SYS_BOOT", CAP_SYS_BOOT},
    {"CAP_SYS_NICE", CAP_SYS_NICE},
    {"CAP_SYS_RESOURCE", CAP_SYS_RESOURCE},
    {"CAP_SYS_TIME", CAP_SYS_TIME},
    {"CAP_SYS_TTY_CONFIG", CAP_SYS_TTY_CONFIG},
    {"CAP_MKNOD", CAP_MKNOD},
    {"CAP_LEASE", CAP_LEASE},
    {"CAP_AUDIT_WRITE", CAP_AUDIT_WRITE},
    {"CAP_AUDIT_CONTROL", CAP_AUDIT_CONTROL},
    {"CAP_SETFCAP", CAP_SETFCAP},
    {"CAP_MAC_OVERRIDE", CAP_MAC_OVERRIDE},
    {"CAP_MAC_ADMIN", CAP_MAC_ADMIN},
    {"CAP_SYSLOG", CAP_SYSLOG},
    {"CAP_WAKE_ALARM", CAP_WAKE_ALARM},
    {"CAP_BLOCK_SUSPEND", CAP_BLOCK_SUSPEND},
    {"CAP_AUDIT_READ", CAP_AUDIT_READ},
    {"CAP_PERFMON", CAP_PERFMON},
    {"CAP_BPF", CAP_BPF},
    {"CAP_CHECKPOINT_RESTORE", CAP_CHECKPOINT_RESTORE},
};
static_assert(std::size(kCapabilityNames) == CAP_LAST_CAP + 1);

constexpr Word<int> kRlimitNames[] = {
    {"RLIMIT_AS", RLIMIT_AS},
    {"RLIMIT_CORE", RLIMIT_CORE},
    {"RLIMIT_CPU", RLIMIT_CPU},
    {"RLIMIT_DATA", RLIMIT_DATA},
    {"RLIMIT_FSIZE", RLIMIT_FSIZE},
    {"RLIMIT_LOCKS", RLIMIT_LOCKS},
    {"RLIMIT_MEMLOCK", RLIMIT_MEMLOCK},
    {"RLIMIT_MSGQUEUE", RLIMIT_MSGQUEUE},
    {"RLIMIT_NICE", RLIMIT_NICE},
    {"RLIMIT_NOFILE", RLIMIT_NOFILE},
    {"RLIMIT_NPROC", RLIMIT_NPROC},
    {"RLIMIT_RSS", RLIMIT_RSS},
    {"RLIMIT_RTPRIO", RLIMIT_RTPRIO},
    {"RLIMIT_RTTIME", RLIMIT_RTTIME},
    {"RLIMIT_SIGPENDING", RLIMIT_SIGPENDING},
    {"RLIMIT_STACK", RLIMIT_STACK},
};
static_assert(std::size(kRlimitNames) == RLIM_NLIMITS);

// ---------------------------------------------------------------- user

bool read_group(JsonReader& reader, const Node& at, std::uint32_t& group)
{
    std::int64_t value = 0;
    if (!reader.integer(at, 0, kIdMax, value))
        return false;
    group = static_cast<std::uint32_t>(value);
    return true;
}

bool read_groups(JsonReader& reader, const Node& at, User& user)
{
    return read_list(reader, at, user.groups, read_group) &&
           (user.groups.size() <= kGroupsMax ||
            reader.refuse(at, "has more than %zu elements", kGroupsMax));
}

constexpr Member<User> kUser[] = {
    {"uid", read_integer<&User::uid, 0, kIdMax>, Presence::kRequired},
    {"gid", read_integer<&User::gid, 0, kIdMax>, Presence::kRequired},
    {"umask", read_integer<&User::umask, 0, 0777>},
    {"additionalGids", read_groups},
    {"username", read_unsupported<User>}, // for systems without numeric ids
};

bool read_user(JsonReader& reader, const Node& at, Settings& settings)
{
    settings.user.given = true;
    return read_object(reader, at, kUser, settings.user);
}

// ---------------------------------------------------------------- rights

template <auto kField>
bool read_capability_set(JsonReader& reader, const Node& at, Capabilities& capabilities)
{
    return read_elements(reader, at, [&](const Node& node) {
        unsigned number = 0;
        if (!read_word(reader, node, kCapabilityNames, "unknown capability", number))
            return false;
        capabilities.*kField |= std::uint64_t{1} << number;
        return true;
    });
}

constexpr Member<Capabilities> kCapabilities[] = {
    {"bounding", read_capability_set<&Capabilities::bounding>},
    {"effective", read_capability_set<&Capabilities::effective>},
    {"permitted", read_capability_set<&Capabilities::permitted>},
    {"inheritable", read_capability_set<&Capabilities::inheritable>},
    {"ambient", read_capability_set<&Capabilities::ambient>},
};

bool read_capabilities(JsonReader& reader, const Node& at, Settings& settings)
{
    Capabilities& capabilities = settings.capabilities;
    capabilities.given = true;
    if (!read_object(reader, at, kCapabilities, capabilities))
        return false;
    // The kernel refuses such sets.
    return (capabilities.effective & ~capabilities.permitted) == 0 ||
           reader.refuse(Node{nullptr, &at, "effective"},
                         "contains a capability that \"permitted\" does not contain");
}

// ---------------------------------------------------------------- limits

bool read_rlimit_type(JsonReader& reader, const Node& at, Rlimit& rlimit)
{
    return read_word(reader, at, kRlimitNames, "unknown limit", rlimit.resource);
}

constexpr Member<Rlimit> kRlimit[] = {
    {"type", read_rlimit_type, Presence::kRequired},
    {"soft", read_unsigned_limit<&Rlimit::soft>, Presence::kRequired},
    {"hard", read_unsigned_limit<&Rlimit::hard>, Presence::kRequired},
};

bool read_rlimits(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_elements(reader, at, [&](const Node& node) {
        Rlimit rlimit;
        if (!read_object(reader, node, kRlimit, rlimit))
            return false;
        if (rlimit.soft > rlimit.hard)
            return reader.refuse(Node{nullptr, &node, "soft"}, "higher than \"hard\"");
        for (const Rlimit& other : settings.rlimits)
            if (other.resource == rlimit.resource)
                return reader.refuse_text(Node{member_of(node, "type"), &node, "type"},
                                          "second limit of type");
        return settings.rlimits.append(rlimit) != nullptr || reader.no_memory(node);
    });
}

constexpr Member<Settings> kProcess[] = {
    {"args", read_ignored<Settings>, Presence::kOptional, Spelling::kAnyCase},
    {"env", read_ignored<Settings>, Presence::kOptional, Spelling::kAnyCase},
    {"cwd", read_ignored<Settings>, Presence::kOptional, Spelling::kAnyCase},
    {"terminal", read_boolean<&Settings::terminal>, Presence::kOptional, Spelling::kAnyCase},
    // The user of an image, as zncUnpack records it. It is not the user of the program.
    {"usr", read_ignored<Settings>},
    {"consoleSize", read_ignored<Settings>}, // the client sets the size of its terminal
    {"user", read_user},
    {"capabilities", read_capabilities},
    {"noNewPrivileges", read_boolean<&Settings::noNewPrivileges>},
    {"rlimits", read_rlimits},
    {"oomScoreAdj", read_integer<&Settings::oomScoreAdj, -1000, 1000>},
    {"apparmorProfile", read_text<&Settings::apparmorProfile>},
    {"selinuxLabel", read_text<&Settings::selinuxLabel>},
    {"ioPriority", read_unsupported<Settings>},
    {"scheduler", read_unsupported<Settings>},
    {"execCPUAffinity", read_unsupported<Settings>},
    {"commandLine", read_unsupported<Settings>}, // of another operating system
};

} // namespace

bool capability_is_known(std::string_view name)
{
    for (const Word<unsigned>& word : kCapabilityNames)
        if (name == word.text)
            return true;
    return false;
}

bool read_process(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_object(reader, at, kProcess, settings, Others::kIgnored);
}

} // namespace zn

void znnsCapabilitiesEach(void (*visit)(const char* name, BOOL byDefault, void* context),
                          void* context)
{
    for (const auto& capability : zn::kCapabilityNames) {
        const bool by_default = (zn::kDefaultCapabilities >> capability.value & 1U) != 0;
        visit(capability.text, by_default ? TRUE : FALSE, context);
    }
}
