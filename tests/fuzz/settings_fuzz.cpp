// settings_fuzz.cpp - the reader of container settings: what it accepts is in range, free of
// contradictions and cannot lead out of the container, and a refusal names a field.
#include "fuzz_input.hpp"

#include "settings/settings_policy.hpp"
#include "settings/settings_reader.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>

namespace {

using fuzz::require;
using From = zn::NsChoice::From;

constexpr std::int64_t kExactMax = (std::int64_t{1} << 53) - 1;
constexpr std::uint64_t kAllCapabilities = (std::uint64_t{1} << 41) - 1;
constexpr std::uint32_t kNoId = UINT32_MAX;

bool has_parent(std::string_view path)
{
    return ('/' + std::string(path) + '/').find("/../") != std::string::npos;
}

void check_text(const zn::Text& text)
{
    if (!text)
        return;
    const std::string_view content = text.get();
    require(!content.empty() && content.size() <= 4095, "a text is neither empty nor too long");
    for (const char letter : content)
        require(letter == '\t' || (static_cast<unsigned char>(letter) >= ' ' && letter != 0x7f),
                "a text has no control characters");
}

void check_path(const zn::Text& path)
{
    check_text(path);
    require(path != nullptr && path[0] == '/' && !has_parent(path.get()),
            "a path is absolute and has no \"..\"");
}

void check_paths(const zn::List<zn::Text>& paths, bool given)
{
    require(given || paths.empty(), "a list that is not given is empty");
    for (const zn::Text& path : paths)
        check_path(path);
}

From from(const zn::Settings& settings, zn::NsKind kind)
{
    return settings.namespaces[static_cast<unsigned>(kind)].from;
}

void check_mappings(const zn::List<zn::IdMapping>& mappings, From user)
{
    require(user != From::kHost || mappings.empty(), "a mapping has a user namespace");
    require(user != From::kNew || !mappings.empty(), "a new user namespace has mappings");
    const auto apart = [](std::uint64_t a, std::uint64_t an, std::uint64_t b, std::uint64_t bn) {
        return a + an <= b || b + bn <= a;
    };
    for (std::size_t i = 0; i < mappings.size(); i++) {
        const zn::IdMapping& one = mappings[i];
        require(one.count > 0 && std::uint64_t{one.inside} + one.count <= kNoId &&
                    std::uint64_t{one.outside} + one.count <= kNoId,
                "a mapping stays within the ids");
        for (std::size_t j = 0; j < i; j++)
            require(apart(one.inside, one.count, mappings[j].inside, mappings[j].count) &&
                        apart(one.outside, one.count, mappings[j].outside, mappings[j].count),
                    "mappings do not overlap");
    }
}

void check_namespaces(const zn::Settings& settings)
{
    for (const zn::NsChoice& choice : settings.namespaces) {
        require(settings.namespacesGiven || choice.from == From::kHost,
                "without a list nothing is chosen");
        require((choice.from == From::kPath) == (choice.path != nullptr),
                "an existing namespace has a path");
        if (choice.path)
            check_path(choice.path);
    }
    check_mappings(settings.uidMappings, from(settings, zn::NsKind::kUser));
    check_mappings(settings.gidMappings, from(settings, zn::NsKind::kUser));
}

void check_process(const zn::Settings& settings)
{
    const zn::User& user = settings.user;
    require(user.uid != kNoId && user.gid != kNoId && user.umask.value_or(0) <= 0777,
            "a user has ids and a umask in range");
    for (const std::uint32_t group : user.groups)
        require(group != kNoId, "a group is an id");
    const zn::Capabilities& sets = settings.capabilities;
    const std::uint64_t all =
        sets.bounding | sets.effective | sets.permitted | sets.inheritable | sets.ambient;
    require((all & ~kAllCapabilities) == 0 && (sets.given || all == 0), "capabilities are known");
    require((sets.effective & ~sets.permitted) == 0, "effective capabilities are permitted");
    unsigned seen = 0;
    for (const zn::Rlimit& limit : settings.rlimits) {
        require(limit.resource >= 0 && limit.resource < static_cast<int>(RLIM_NLIMITS) &&
                    (seen & (1U << limit.resource)) == 0,
                "a limit is known and given once");
        seen |= 1U << limit.resource;
        require(limit.soft <= limit.hard && (limit.hard <= static_cast<std::uint64_t>(kExactMax) ||
                                             limit.hard == RLIM_INFINITY),
                "a limit is exact or unlimited");
    }
    const int score = settings.oomScoreAdj.value_or(0);
    require(score >= -1000 && score <= 1000, "an OOM score is in range");
    check_text(settings.apparmorProfile);
    check_text(settings.selinuxLabel);
}

void check_devices(const zn::List<zn::Device>& devices)
{
    for (const zn::Device& device : devices) {
        require(std::strchr("cbp", device.type) != nullptr && device.type != '\0',
                "a device has a type");
        check_path(device.path);
        require(std::string_view(device.path.get()).back() != '/', "a device has a name");
        require(device.major < 4096 && device.minor < 1048576 && device.mode <= 07777 &&
                    device.uid != kNoId && device.gid != kNoId,
                "a device has numbers in range");
    }
}

void check_sysctl(const zn::Settings& settings)
{
    for (const zn::Sysctl& sysctl : settings.sysctl) {
        std::string path = sysctl.key.get();
        require(path.rfind("net.", 0) == 0 || path.rfind("kernel.", 0) == 0 ||
                    path.rfind("fs.mqueue.", 0) == 0,
                "a parameter belongs to a namespace");
        const zn::NsKind owner =
            path.rfind("net.", 0) == 0 ? zn::NsKind::kNetwork : zn::NsKind::kIpc;
        require(!settings.namespacesGiven || from(settings, owner) != From::kHost,
                "a parameter belongs to the container");
        for (char& letter : path)
            if (letter == '.' || letter == '/')
                letter = letter == '.' ? '/' : '.';
        require(!has_parent(path) && path.find("//") == std::string::npos && path.back() != '/' &&
                    ('/' + path + '/').find("/./") == std::string::npos,
                "a parameter is a file below /proc/sys");
        require(sysctl.value != nullptr, "a parameter has a value");
        check_text(sysctl.value);
    }
}

void check_limit(const std::optional<std::int64_t>& limit, std::int64_t least, std::int64_t most)
{
    require(!limit || *limit == -1 || (*limit >= least && *limit <= most), "a limit is in range");
}

void check_rates(const zn::List<zn::DeviceRate>& rates)
{
    for (const zn::DeviceRate& rate : rates)
        require(rate.major < 4096 && rate.minor < 1048576 && rate.rate >= 1 &&
                    rate.rate <= static_cast<std::uint64_t>(kExactMax),
                "a rate is in range");
}

void check_rules(const zn::List<zn::DeviceRule>& rules)
{
    for (const zn::DeviceRule& rule : rules) {
        require(std::strchr("acb", rule.type) != nullptr && rule.type != '\0' && rule.major >= -1 &&
                    rule.major < 4096 && rule.minor >= -1 && rule.minor < 1048576 &&
                    (rule.read || rule.write || rule.make),
                "a device rule is in range");
        require(rule.type != 'a' ||
                    (rule.major == -1 && rule.minor == -1 && rule.read && rule.write && rule.make),
                "a rule about all devices names none");
    }
}

void check_resources(const zn::Resources& limits)
{
    check_limit(limits.memoryLimit, 1, kExactMax);
    check_limit(limits.memoryReservation, 0, kExactMax);
    check_limit(limits.memorySwap, 1, kExactMax);
    check_limit(limits.cpuQuota, 1000, kExactMax);
    check_limit(limits.pidsLimit, 1, 4194304);
    require(limits.memorySwappiness.value_or(0) <= 100, "swappiness is in range");
    const std::uint64_t shares = limits.cpuShares.value_or(2);
    const std::uint64_t period = limits.cpuPeriod.value_or(1000);
    const std::uint32_t weight = limits.ioWeight.value_or(10);
    require(shares >= 2 && shares <= 262144 && period >= 1000 && period <= 1000000 &&
                weight >= 10 && weight <= 1000,
            "weights and periods are in range");
    for (const zn::Text* list : {&limits.cpus, &limits.mems})
        require(*list == nullptr ||
                    std::strspn(list->get(), "0123456789,-") == std::strlen(list->get()),
                "a list of processors has numbers only");
    for (const zn::List<zn::DeviceRate>* rates :
         {&limits.readBps, &limits.writeBps, &limits.readIops, &limits.writeIops})
        check_rates(*rates);
    for (const zn::HugepageLimit& limit : limits.hugepages)
        require(limit.size != nullptr && std::strspn(limit.size.get(), "0123456789KMGB") ==
                                             std::strlen(limit.size.get()),
                "a page size names a file");
    check_rules(limits.devices);
}

void check_answer(const zn::SeccompAnswer& answer)
{
    require(answer.action <= zn::SeccompAction::kLog && answer.number <= 0xffff &&
                (answer.action != zn::SeccompAction::kErrno || answer.number <= 4095),
            "an answer of a filter is in range");
}

void check_seccomp(const zn::SeccompProfile& profile)
{
    require(profile.given || profile.rules.empty(), "a filter that is not given has no rules");
    check_answer(profile.fallback);
    for (const zn::Text& name : profile.architectures)
        require(std::strncmp(name.get(), "SCMP_ARCH_", 10) == 0, "an architecture is one");
    for (const zn::Text& name : profile.flags)
        require(std::strncmp(name.get(), "SECCOMP_FILTER_FLAG_", 20) == 0, "a flag is one");
    for (const zn::SeccompRule& rule : profile.rules) {
        require(!rule.names.empty(), "a rule has a system call");
        for (const zn::Text& name : rule.names) {
            require(name != nullptr, "a system call has a name");
            check_text(name);
        }
        check_answer(rule.answer);
        for (const zn::SeccompArg& arg : rule.args)
            require(arg.index <= 5 && arg.compare <= zn::SeccompCompare::kMaskedEq &&
                        std::max(arg.value, arg.valueTwo) <= static_cast<std::uint64_t>(kExactMax),
                    "an argument is in range");
    }
}

void check_settings(const zn::Settings& settings)
{
    check_namespaces(settings);
    check_process(settings);
    check_paths(settings.maskedPaths, settings.maskedPathsGiven);
    check_paths(settings.readonlyPaths, settings.readonlyPathsGiven);
    const std::uint64_t kind =
        settings.rootPropagation.value_or(MS_PRIVATE) & ~std::uint64_t{MS_REC};
    require(kind == MS_PRIVATE || kind == MS_SLAVE || kind == MS_SHARED || kind == MS_UNBINDABLE,
            "a propagation is one");
    check_devices(settings.devices);
    check_sysctl(settings);
    check_text(settings.cgroupsPath);
    require(!settings.cgroupsPath || !has_parent(settings.cgroupsPath.get()),
            "a control group has no \"..\"");
    check_resources(settings.resources);
    check_seccomp(settings.seccomp);
}

void check_fault(const zn::SettingsFault& fault, const char* start)
{
    require(std::memchr(fault.field, '\0', sizeof fault.field) != nullptr &&
                std::memchr(fault.reason, '\0', sizeof fault.reason) != nullptr,
            "a fault is terminated");
    require(fault.reason[0] != '\0' && std::strncmp(fault.field, start, std::strlen(start)) == 0 &&
                fault.field[0] != '\0',
            "a fault names a field and a reason");
    for (const char letter : std::string_view(fault.field))
        require(static_cast<unsigned char>(letter) >= ' ' && letter != 0x7f,
                "a fault has no control characters");
}

void check_verdict(const zn::Settings& settings)
{
    zn::SettingsFault fault;
    if (!zn::settings_within_defaults(settings, fault)) {
        check_fault(fault, "");
        return;
    }
    const zn::Capabilities& sets = settings.capabilities;
    require(((sets.bounding | sets.permitted | sets.ambient | sets.inheritable) &
             ~zn::kDefaultCapabilities) == 0,
            "further capabilities need consent");
    for (const zn::NsKind kind : {zn::NsKind::kMount, zn::NsKind::kPid, zn::NsKind::kNetwork})
        require(!settings.namespacesGiven || from(settings, kind) == From::kNew,
                "shared namespaces need consent");
    require(!settings.seccomp.given ||
                settings.seccomp.fallback.action != zn::SeccompAction::kAllow,
            "unconfined filters need consent");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view document(reinterpret_cast<const char*>(data), size);
    zn::Settings settings;
    zn::SettingsFault fault;
    int error = zn::settings_read(document, settings, fault);
    require(error == 0 || error == EINVAL || error == ENOTSUP, "an error is one of the contract");
    if (error == 0) {
        check_settings(settings);
        check_verdict(settings);
    } else {
        check_fault(fault, "");
        check_settings(settings);
    }
    zn::Resources limits;
    error = zn::settings_read_resources(document, limits, fault);
    if (error == 0)
        check_resources(limits);
    else
        check_fault(fault, "resources");
    return 0;
}
