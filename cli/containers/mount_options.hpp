// mount_options.hpp - reads the options --volume, --mount and --tmpfs.
#ifndef ZNC_CLI_CONTAINERS_MOUNT_OPTIONS_HPP
#define ZNC_CLI_CONTAINERS_MOUNT_OPTIONS_HPP

#include "front/command.hpp"
#include "front/json.hpp"

namespace zncctl {

// The mounts in the format of a configuration, outer ones before those inside them. Host paths are
// absolute and without links. Throws BadOption for wrong use and std::runtime_error for a source
// that does not exist.
Json read_mounts(const Arguments& args);

} // namespace zncctl

#endif
