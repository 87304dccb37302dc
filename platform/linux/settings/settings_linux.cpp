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

template <auto kPaths, auto kGiven>
bool read_paths(JsonReader& reader, const Node& at, Settings& settings)
{
    settings.*kGiven = true;
    return read_list(reader, at, settings.*kPaths, read_absolute_path);
}

bool read_cgroups_path(JsonReader& reader, const Node& at, Settings& settings)
{
    if (!reader.text(at, settings.cgroupsPath))
        return false;
    return settings.cgroupsPath == nullptr || !has_dot_component(settings.cgroupsPath.get()) ||
           reader.refuse(at, "contains a component \".\" or \"..\"");
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

constexpr Member<Settings> kLinux[] = {
    {"namespaces", read_namespaces},
    {"uidMappings", read_with<&Settings::uidMappings, read_id_mapping>},
    {"gidMappings", read_with<&Settings::gidMappings, read_id_mapping>},
    {"devices", read_list_of<&Settings::devices, read_device>},
    {"cgroupsPath", read_cgroups_path},
    {"resources", read_with<&Settings::resources, read_resources>},
    {"seccomp", read_with<&Settings::seccomp, read_seccomp>},
    {"sysctl", read_sysctl},
    {"maskedPaths", read_paths<&Settings::maskedPaths, &Settings::maskedPathsGiven>},
    {"readonlyPaths", read_paths<&Settings::readonlyPaths, &Settings::readonlyPathsGiven>},
    {"rootfsPropagation", read_propagation},
    {"mountLabel", read_text<&Settings::mountLabel>},
    {"intelRdt", read_unsupported<Settings>},
    {"memoryPolicy", read_unsupported<Settings>},
    {"netDevices", read_unsupported<Settings>},
    {"personality", read_unsupported<Settings>},
    {"timeOffsets", read_table<kTimeOffsets>},
};

} // namespace

bool read_linux(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_object(reader, at, kLinux, settings, Others::kIgnored);
}

} // namespace zn
