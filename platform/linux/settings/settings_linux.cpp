// settings_linux.cpp - reads the section "linux", except for resources, kernel parameters and the
// seccomp filter.
#include "settings_sections.hpp"

#include <sys/mount.h>

namespace zn {
namespace {

constexpr Word<std::uint64_t> kPropagations[] = {
    {"private", MS_PRIVATE},       {"rprivate", MS_PRIVATE | MS_REC},
    {"slave", MS_SLAVE},           {"rslave", MS_SLAVE | MS_REC},
    {"shared", MS_SHARED},         {"rshared", MS_SHARED | MS_REC},
    {"unbindable", MS_UNBINDABLE}, {"runbindable", MS_UNBINDABLE | MS_REC},
};

bool read_propagation(JsonReader& reader, const Node& at, Settings& settings)
{
    std::uint64_t bits = 0;
    if (is_empty(at.value) && cJSON_IsString(at.value) != 0)
        return true;
    if (!read_word(reader, at, kPropagations, "unknown propagation", bits))
        return false;
    settings.rootPropagation = bits;
    return true;
}

bool read_masked_paths(JsonReader& reader, const Node& at, Settings& settings)
{
    settings.maskedPathsGiven = true;
    return read_list(reader, at, settings.maskedPaths, read_absolute_path);
}

bool read_readonly_paths(JsonReader& reader, const Node& at, Settings& settings)
{
    settings.readonlyPathsGiven = true;
    return read_list(reader, at, settings.readonlyPaths, read_absolute_path);
}

bool read_cgroups_path(JsonReader& reader, const Node& at, Settings& settings)
{
    if (!reader.text(at, settings.cgroupsPath))
        return false;
    return settings.cgroupsPath == nullptr || !has_dot_component(settings.cgroupsPath.get()) ||
           reader.refuse(at, "contains a component \".\" or \"..\"");
}

bool read_linux_resources(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_resources(reader, at, settings.resources);
}

bool read_linux_seccomp(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_seccomp(reader, at, settings.seccomp);
}

bool read_uid_mappings(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_id_mapping(reader, at, settings.uidMappings);
}

bool read_gid_mappings(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_id_mapping(reader, at, settings.gidMappings);
}

constexpr std::int64_t kSecondsMax = 9000000000; // the kernel's clocks end earlier
constexpr Member<TimeOffset> kTimeOffset[] = {
    {"secs", read_integer<&TimeOffset::seconds, -kSecondsMax, kSecondsMax>},
    {"nanosecs", read_integer<&TimeOffset::nanoseconds, 0, 999999999>},
};

template <auto kField> bool read_time_offset(JsonReader& reader, const Node& at, Settings& settings)
{
    (settings.*kField).given = true;
    return read_object(reader, at, kTimeOffset, settings.*kField);
}

constexpr Member<Settings> kTimeOffsets[] = {
    {"monotonic", read_time_offset<&Settings::monotonic>},
    {"boottime", read_time_offset<&Settings::boottime>},
};

bool read_time_offsets(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_object(reader, at, kTimeOffsets, settings);
}

constexpr Member<Settings> kLinux[] = {
    {"namespaces", read_namespaces},
    {"uidMappings", read_uid_mappings},
    {"gidMappings", read_gid_mappings},
    {"devices", read_list_of<&Settings::devices, read_device>},
    {"cgroupsPath", read_cgroups_path},
    {"resources", read_linux_resources},
    {"seccomp", read_linux_seccomp},
    {"sysctl", read_sysctl},
    {"maskedPaths", read_masked_paths},
    {"readonlyPaths", read_readonly_paths},
    {"rootfsPropagation", read_propagation},
    {"mountLabel", read_text<&Settings::mountLabel>},
    {"intelRdt", read_unsupported<Settings>},
    {"memoryPolicy", read_unsupported<Settings>},
    {"netDevices", read_unsupported<Settings>},
    {"personality", read_unsupported<Settings>},
    {"timeOffsets", read_time_offsets},
};

} // namespace

bool read_linux(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_object(reader, at, kLinux, settings, Others::kIgnored);
}

} // namespace zn
