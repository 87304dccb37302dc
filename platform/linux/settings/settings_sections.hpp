// settings_sections.hpp - the readers of the sections of a configuration document. Called by
// settings_reader.cpp and by each other.
#ifndef ZN_SETTINGS_SECTIONS_HPP
#define ZN_SETTINGS_SECTIONS_HPP

#include "settings_json.hpp"

namespace zn {

bool read_process(JsonReader& reader, const Node& at, Settings& settings);
bool read_linux(JsonReader& reader, const Node& at, Settings& settings);
bool read_namespaces(JsonReader& reader, const Node& at, Settings& settings);
bool read_id_mapping(JsonReader& reader, const Node& at, List<IdMapping>& mappings);
bool read_device(JsonReader& reader, const Node& at, Device& device);
bool read_resources(JsonReader& reader, const Node& at, Resources& resources);
bool read_device_rule(JsonReader& reader, const Node& at, DeviceRule& rule);
bool read_sysctl(JsonReader& reader, const Node& at, Settings& settings);
bool read_seccomp(JsonReader& reader, const Node& at, SeccompProfile& profile);

// Checks that need the whole document, since the order of its members is arbitrary: mappings
// require a user namespace, and kernel parameters a namespace of the container's own.
bool check_namespaces(JsonReader& reader, const Settings& settings);
bool check_sysctl(JsonReader& reader, const Settings& settings);

} // namespace zn

#endif
