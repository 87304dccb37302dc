// settings_reader.hpp - reads the settings of a container from its configuration document (the OCI
// runtime's config.json), for the daemon's containers and those of engines. The sections
// "root.path", "mounts", "process.args", "process.env", "process.cwd", "hooks" and "annotations"
// are read elsewhere and not looked at here.
//
// Every member named in settings.hpp is checked by type and range. Members of "linux" and "process"
// that restrict or grant something and are not supported are refused with an error that names them.
// Members that the OCI runtime specification does not define are ignored, as it requires, except in
// the objects that are read here, whose meaning they could change. A name that occurs twice in an
// object that is read here, also in another case, is refused. Names are compared exactly, except
// for those that the library reads as well ("process", "root" and some of their members), whose
// case it ignores. A member that is null counts as absent.
//
// Numbers beyond 2^53 could have been rounded by the parser. They are accepted only for limits:
// anything from 2^63 means unlimited.
#ifndef ZN_SETTINGS_READER_HPP
#define ZN_SETTINGS_READER_HPP

#include "settings.hpp"

#include <string_view>

namespace zn {

// Why a document was refused.
struct SettingsFault {
    // "linux.resources.memory.limit", "process.rlimits[2].type"; "config.json" is the document
    char field[128] = {};
    char reason[160] = {}; // "not a number from 0 to 1000"
};

// Reads `document` into `settings`, which are replaced, or stay as they are after an error. 0, or
// an error number with `fault` set: EINVAL (not JSON, longer than 4 MiB, wrong type or range,
// contradiction), ENOTSUP (known, but not supported), ENOMEM. What is accepted may still be
// impossible on this machine: the users of the settings check that.
int settings_read(std::string_view document, Settings& settings, SettingsFault& fault);

// Whether documents may name this capability ("CAP_KILL").
bool capability_is_known(std::string_view name);

// Reads a "resources" object alone, as for changing the limits of a running container. The fields
// in `fault` begin with "resources".
int settings_read_resources(std::string_view document, Resources& resources, SettingsFault& fault);

} // namespace zn

#endif
