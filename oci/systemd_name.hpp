// systemd_name.hpp - names of systemd's units and paths of their control groups. Pure functions.
#ifndef ZNC_OCI_SYSTEMD_NAME_HPP
#define ZNC_OCI_SYSTEMD_NAME_HPP

#include <string>

namespace zncrun {

// A scope, the unit of processes that systemd did not start itself, and the slice that contains it.
struct ScopeName {
    std::string slice; // "system.slice"
    std::string unit;  // "prefix-name.scope"
};

// The scope that linux.cgroupsPath names: "slice:prefix:name". An empty slice is `slice`, an empty
// prefix is left out. An empty path stands for the scope "zncrun-`name`.scope". Whatever cannot be
// the name of a unit is refused.
ScopeName read_scope_name(const std::string& path, const std::string& slice,
                          const std::string& name);

// The control group of the scope, below `root`, that of the service manager: the slice
// "a-b.slice" is in "a.slice/a-b.slice".
std::string scope_group(const std::string& root, const ScopeName& scope);

} // namespace zncrun

#endif
