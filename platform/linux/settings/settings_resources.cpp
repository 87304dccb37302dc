// settings_resources.cpp - reads a "resources" object, except for device rules.
#include "settings_sections.hpp"

#include <climits>

namespace zn {
namespace {

constexpr std::int64_t kPidsMax = 4194304; // PID_MAX_LIMIT of the kernel

bool is_zero(const Node& at)
{
    return cJSON_IsNumber(at.value) != 0 && at.value->valuedouble == 0;
}

// Reads a value that cannot be zero: engines write zero if it is not set, which counts as absent.
template <auto kRead> bool read_unless_zero(JsonReader& reader, const Node& at, Resources& to)
{
    return is_zero(at) || kRead(reader, at, to);
}

// A limit that the kernel no longer has, or that is not supported, for which zero means "none".
template <class T> bool read_only_zero(JsonReader& reader, const Node& at, T& /*to*/)
{
    return is_zero(at) || reader.unsupported(at);
}

// A limit that the kernel no longer has.
bool read_only_unlimited(JsonReader& reader, const Node& at, Resources& /*to*/)
{
    std::int64_t value = 0;
    if (is_zero(at))
        return true;
    if (!reader.limit(at, 0, kExactMax, value))
        return false;
    return value == -1 || reader.unsupported(at);
}

// "useHierarchy": limits always include the groups below.
bool read_any_boolean(JsonReader& reader, const Node& at, Resources& /*to*/)
{
    bool value = false;
    return reader.boolean(at, value);
}

bool read_only_false(JsonReader& reader, const Node& at, Resources& /*to*/)
{
    bool value = false;
    return reader.boolean(at, value) && (!value || reader.unsupported(at));
}

// ---------------------------------------------------------------- memory

constexpr Member<Resources> kMemory[] = {
    {"limit", read_limit<&Resources::memoryLimit, 1>},
    {"reservation", read_limit<&Resources::memoryReservation, 0>},
    {"swap", read_limit<&Resources::memorySwap, 1>},
    {"kernel", read_only_unlimited},
    {"kernelTCP", read_only_unlimited},
    {"swappiness", read_integer<&Resources::memorySwappiness, 0, 100>},
    {"disableOOMKiller", read_boolean<&Resources::disableOomKiller>},
    {"useHierarchy", read_any_boolean},
    {"checkBeforeUpdate", read_only_false},
};

bool read_memory(JsonReader& reader, const Node& at, Resources& resources)
{
    if (!read_object(reader, at, kMemory, resources))
        return false;
    const std::optional<std::int64_t>& limit = resources.memoryLimit;
    const std::optional<std::int64_t>& swap = resources.memorySwap;
    // "swap" is the limit of memory and swap together.
    if (limit && swap && *swap != -1 && (*limit == -1 || *swap < *limit))
        return reader.refuse(Node{nullptr, &at, "swap"}, "lower than \"limit\"");
    return true;
}

// ---------------------------------------------------------------- processors

// Whether the text is a list of numbers and ranges: "0-3,5".
bool is_cpu_list(std::string_view text)
{
    constexpr std::size_t kDigitsMax = 5;
    const auto take_number = [&text](unsigned& number) {
        std::size_t len = 0;
        number = 0;
        while (len < text.size() && len < kDigitsMax && text[len] >= '0' && text[len] <= '9')
            number = 10 * number + static_cast<unsigned>(text[len++] - '0');
        text.remove_prefix(len);
        return len > 0;
    };
    for (;;) {
        unsigned first = 0;
        unsigned last = 0;
        if (!take_number(first))
            return false;
        if (!text.empty() && text[0] == '-') {
            text.remove_prefix(1);
            if (!take_number(last) || last < first)
                return false;
        }
        if (text.empty())
            return true;
        if (text[0] != ',')
            return false;
        text.remove_prefix(1);
    }
}

template <auto kField> bool read_cpu_list(JsonReader& reader, const Node& at, Resources& resources)
{
    if (!reader.text(at, resources.*kField))
        return false;
    const Text& list = resources.*kField;
    return list == nullptr || is_cpu_list(list.get()) ||
           reader.refuse(at, "not a list of numbers and ranges, such as \"0-3,5\"");
}

constexpr Member<Resources> kCpu[] = {
    {"shares", read_unless_zero<read_integer<&Resources::cpuShares, 2, 262144>>},
    {"quota", read_unless_zero<read_limit<&Resources::cpuQuota, 1000>>},
    {"period", read_unless_zero<read_integer<&Resources::cpuPeriod, 1000, 1000000>>},
    {"cpus", read_cpu_list<&Resources::cpus>},
    {"mems", read_cpu_list<&Resources::mems>},
    {"burst", read_only_zero},
    {"idle", read_only_zero},
    {"realtimeRuntime", read_only_zero},
    {"realtimePeriod", read_only_zero},
};

// Engines write 0 for unlimited, too.
bool read_pids_limit(JsonReader& reader, const Node& at, Resources& resources)
{
    std::int64_t value = 0;
    if (!reader.limit(at, 0, kPidsMax, value))
        return false;
    resources.pidsLimit = value == 0 ? -1 : value;
    return true;
}

constexpr Member<Resources> kPids[] = {
    {"limit", read_pids_limit, Presence::kRequired},
};

// ---------------------------------------------------------------- block devices

constexpr Member<DeviceRate> kRate[] = {
    {"major", read_integer<&DeviceRate::major, 0, kMajorMax>, Presence::kRequired},
    {"minor", read_integer<&DeviceRate::minor, 0, kMinorMax>, Presence::kRequired},
    {"rate", read_integer<&DeviceRate::rate, 1, kExactMax>, Presence::kRequired},
};

constexpr Member<DeviceWeight> kDeviceWeight[] = {
    {"major", read_integer<&DeviceWeight::major, 0, kMajorMax>, Presence::kRequired},
    {"minor", read_integer<&DeviceWeight::minor, 0, kMinorMax>, Presence::kRequired},
    {"weight", read_integer<&DeviceWeight::weight, 10, 1000>, Presence::kRequired},
    {"leafWeight", read_only_zero},
};

constexpr Member<Resources> kBlockIo[] = {
    {"weight", read_unless_zero<read_integer<&Resources::ioWeight, 10, 1000>>},
    {"leafWeight", read_only_zero},
    {"weightDevice",
     read_list_of<&Resources::deviceWeights, read_table<kDeviceWeight, DeviceWeight>>},
    {"throttleReadBpsDevice", read_list_of<&Resources::readBps, read_table<kRate, DeviceRate>>},
    {"throttleWriteBpsDevice", read_list_of<&Resources::writeBps, read_table<kRate, DeviceRate>>},
    {"throttleReadIOPSDevice", read_list_of<&Resources::readIops, read_table<kRate, DeviceRate>>},
    {"throttleWriteIOPSDevice", read_list_of<&Resources::writeIops, read_table<kRate, DeviceRate>>},
};

// ---------------------------------------------------------------- huge pages

bool read_page_size(JsonReader& reader, const Node& at, HugepageLimit& limit)
{
    return reader.required_text(at, limit.size) &&
           (is_page_size(limit.size.get()) || reader.refuse(at, "not a size such as \"2MB\""));
}

constexpr Member<HugepageLimit> kHugepage[] = {
    {"pageSize", read_page_size, Presence::kRequired},
    {"limit", read_unsigned_limit<&HugepageLimit::limit>, Presence::kRequired},
};

bool read_hugepages(JsonReader& reader, const Node& at, Resources& resources)
{
    return read_elements(reader, at, [&](const Node& node) {
        HugepageLimit limit;
        if (node.index >= kMembersMax)
            return reader.refuse(at, "has more than %zu elements", kMembersMax);
        if (!read_object(reader, node, kHugepage, limit))
            return false;
        for (const HugepageLimit& other : resources.hugepages)
            if (std::string_view(other.size.get()) == limit.size.get())
                return reader.refuse_text(Node{member_of(node, "pageSize"), &node, "pageSize"},
                                          "second limit for pages of");
        return resources.hugepages.append(std::move(limit)) != nullptr || reader.no_memory(node);
    });
}

// Control files of v2 by name.
bool read_unified(JsonReader& reader, const Node& at, Resources& resources)
{
    return read_members(reader, at, [&](const Node& node) {
        const std::string_view name = node.name;
        if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX ||
            name.find('/') != name.npos)
            return reader.refuse(node, "not the name of a control file");
        ControlFile file;
        if (!reader.required_text(node, file.value))
            return false;
        file.name = znc::copy_text(name);
        return (file.name && resources.unified.append(std::move(file)) != nullptr) ||
               reader.no_memory(node);
    });
}

constexpr Member<Resources> kResources[] = {
    {"memory", read_memory},
    {"cpu", read_table<kCpu>},
    {"pids", read_table<kPids>},
    {"blockIO", read_table<kBlockIo>},
    {"hugepageLimits", read_hugepages},
    {"devices", read_list_of<&Resources::devices, read_device_rule>},
    {"network", read_unsupported<Resources>},
    {"rdma", read_unsupported<Resources>},
    {"unified", read_unified},
};

} // namespace

bool read_resources(JsonReader& reader, const Node& at, Resources& resources)
{
    return read_object(reader, at, kResources, resources);
}

} // namespace zn
