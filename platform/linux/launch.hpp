// launch.hpp - starting the embedded helper program. Used by the namespace service (keepers) and
// the spawner. Left out: what the helper then does (helper/).
#ifndef ZN_LAUNCH_HPP
#define ZN_LAUNCH_HPP

#include "base/owned.hpp"

#include <span>
#include <sys/types.h>

namespace zn {

// The helper as a sealed file in memory: nobody, not even a container that gets hold of it, can
// write to it. Invalid with errno set on failure.
znc::UniqueFd helper_file();

struct LaunchFd {
    int source; // the caller's descriptor
    int target; // its number in the helper
};

struct Launch {
    int file;                      // helper_file()
    unsigned long cloneFlags;      // namespaces and the signal sent to the caller at the end
    std::span<const LaunchFd> fds; // every other descriptor from `closeFrom` up is closed
    int closeFrom;
    char* const* argv;
    char* const* envp;
    int mounts = -1; // a mount namespace: the helper gets a copy of it as its own
    // Not 0: all of the above are below it, and the caller's descriptors from there up, which may
    // be many, are not even copied.
    int copyBelow = 0;
};

// Start it. All signals are blocked in it, so that none arrives half-way. Returns its process id, a
// child of the caller, and a descriptor for it; -1 with errno set, no child then left.
pid_t launch_helper(const Launch& launch, znc::UniqueFd& pidfd);

} // namespace zn

#endif
