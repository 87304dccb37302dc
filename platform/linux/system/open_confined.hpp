// open_confined.hpp - opens paths that must not lead out of a directory, with openat2. Used by
// whatever resolves a path in a container's root or below a control group. The caller must check
// permissions and file types.
#ifndef ZN_OPEN_CONFINED_HPP
#define ZN_OPEN_CONFINED_HPP

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "open_repeated.hpp"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {

// Opens `path` from `directory` with RESOLVE_* of `resolve`; close-on-exec. Invalid with errno set
// on failure.
inline znc::UniqueFd open_confined(int directory, const char* path, int flags,
                                   std::uint64_t resolve)
{
    open_how how = {};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.resolve = resolve;
    const long fd = open_repeated([&] {
        const long got = ::syscall(SYS_openat2, directory, path, &how, sizeof how);
        return got < 0 ? -static_cast<long>(errno) : got;
    });
    if (fd >= 0)
        return znc::UniqueFd(static_cast<int>(fd));
    return znc::fail(static_cast<int>(-fd), znc::UniqueFd());
}

} // namespace zn

#endif
