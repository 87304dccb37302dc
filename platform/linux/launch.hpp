// launch.hpp - starts the embedded helper program. Used for keepers, for the spawner and for
// engines' containers.
#ifndef ZN_LAUNCH_HPP
#define ZN_LAUNCH_HPP

#include "base/owned.hpp"

#include <span>
#include <string_view>
#include <sys/types.h>

namespace zn {

// The helper program as a sealed memfd, which no process can write to, not even a container that
// gets a descriptor of it. Invalid with errno set on failure.
znc::UniqueFd helper_file();

// Writes the content into a memfd and seals it. Invalid with errno set on failure.
znc::UniqueFd sealed_file(znc::UniqueFd file, std::string_view content);

inline constexpr std::size_t kLaunchFdsMax = 256; // descriptors that a helper is given

struct LaunchFd {
    int source; // the caller's descriptor
    int target; // its number in the helper
};

struct LaunchNamespace {
    int descriptor;
    unsigned long type; // CLONE_NEW flag
};

struct Launch {
    int file;                      // helper_file()
    unsigned long cloneFlags;      // clone() flags and exit signal
    std::span<const LaunchFd> fds; // all others from `closeFrom` up are closed
    int closeFrom;
    char* const* argv;
    char* const* envp;
    int mounts = -1; // a mount namespace descriptor: the helper starts in a copy of it
    // If not 0: all descriptors named above are less than this, and the caller's descriptors from
    // this number up are not copied to the child.
    int copyBelow = 0;
    // Namespaces that the child joins before it executes the helper.
    std::span<const LaunchNamespace> joined = {};
};

// Starts the helper as a child of the caller, with all signals blocked. Returns its process id and
// sets `pidfd`; -1 with errno set, and no child, on failure.
pid_t launch_helper(const Launch& launch, znc::UniqueFd& pidfd);

} // namespace zn

#endif
