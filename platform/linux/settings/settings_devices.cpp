// settings_devices.cpp - reads device nodes and the rules that say which devices may be used.
#include "settings_sections.hpp"

namespace zn {
namespace {

constexpr Word<char> kNodeTypes[] = {{"c", 'c'}, {"u", 'c'}, {"b", 'b'}, {"p", 'p'}};
constexpr Word<char> kRuleTypes[] = {{"a", 'a'}, {"c", 'c'}, {"b", 'b'}};

bool read_type(JsonReader& reader, const Node& at, Device& device)
{
    return read_word(reader, at, kNodeTypes, "unknown type", device.type);
}

bool read_node_path(JsonReader& reader, const Node& at, Device& device)
{
    return reader.absolute_path(at, device.path) &&
           (std::string_view(device.path.get()).back() != '/' ||
            reader.refuse(at, "does not end with a name"));
}

// Some engines write the type of the node into the mode, too.
bool read_mode(JsonReader& reader, const Node& at, Device& device)
{
    constexpr std::int64_t kMost = 0177777;
    std::int64_t mode = 0;
    if (!reader.integer(at, 0, kMost, mode))
        return false;
    device.mode = static_cast<std::uint32_t>(mode) & 07777;
    return true;
}

constexpr Member<Device> kDevice[] = {
    {"type", read_type, Presence::kRequired},
    {"path", read_node_path, Presence::kRequired},
    {"major", read_integer<&Device::major, 0, kMajorMax>},
    {"minor", read_integer<&Device::minor, 0, kMinorMax>},
    {"fileMode", read_mode},
    {"uid", read_integer<&Device::uid, 0, kIdMax>},
    {"gid", read_integer<&Device::gid, 0, kIdMax>},
};

// ---------------------------------------------------------------- rules

bool is_empty_text(const Node& at)
{
    return cJSON_IsString(at.value) != 0 && is_empty(at.value);
}

bool read_rule_type(JsonReader& reader, const Node& at, DeviceRule& rule)
{
    return is_empty_text(at) || read_word(reader, at, kRuleTypes, "unknown type", rule.type);
}

bool read_access(JsonReader& reader, const Node& at, DeviceRule& rule)
{
    Text access;
    if (!reader.text(at, access))
        return false;
    for (const char* letter = access.get(); letter != nullptr && *letter != '\0'; letter++) {
        rule.read = rule.read || *letter == 'r';
        rule.write = rule.write || *letter == 'w';
        rule.make = rule.make || *letter == 'm';
        if (*letter != 'r' && *letter != 'w' && *letter != 'm')
            return reader.refuse(at, "not a combination of \"r\", \"w\" and \"m\"");
    }
    return true;
}

constexpr Member<DeviceRule> kRule[] = {
    {"allow", read_boolean<&DeviceRule::allow>, Presence::kRequired},
    {"type", read_rule_type},
    {"major", read_integer<&DeviceRule::major, kAnyDevice, kMajorMax>},
    {"minor", read_integer<&DeviceRule::minor, kAnyDevice, kMinorMax>},
    {"access", read_access},
};

} // namespace

bool read_device(JsonReader& reader, const Node& at, Device& device)
{
    if (!read_object(reader, at, kDevice, device))
        return false;
    for (const char* const number : {"major", "minor"})
        if (device.type != 'p' && member_of(at, number) == nullptr)
            return reader.refuse(Node{nullptr, &at, number}, "is missing");
    return true;
}

bool read_device_rule(JsonReader& reader, const Node& at, DeviceRule& rule)
{
    if (!read_object(reader, at, kRule, rule))
        return false;
    if (!rule.read && !rule.write && !rule.make)
        rule.read = rule.write = rule.make = true;
    if (rule.type != 'a')
        return true;
    // In cgroup v1 such a rule would apply to all devices and to every access.
    if (rule.major != kAnyDevice || rule.minor != kAnyDevice)
        return reader.refuse(Node{nullptr, &at, "type"},
                             "is missing or \"a\", with a device number");
    return (rule.read && rule.write && rule.make) ||
           reader.refuse(Node{nullptr, &at, "access"},
                         "not \"rwm\", although the rule is about all types");
}

} // namespace zn
