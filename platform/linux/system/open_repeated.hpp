// open_repeated.hpp - repeats an openat2 that a concurrent rename or mount disturbed. Also for the
// helper program, which has no C library.
#ifndef ZN_OPEN_REPEATED_HPP
#define ZN_OPEN_REPEATED_HPP

#include <asm/errno.h>

namespace zn {

// With RESOLVE_IN_ROOT or RESOLVE_BENEATH, a lookup of ".." fails with EAGAIN if a rename or mount
// anywhere on the machine happens at the same time. A container may rename in a loop, so many
// attempts are needed to be certain of one without a concurrent rename.
constexpr int kOpenTries = 20000;

// Calls `attempt`, which returns a descriptor or a negative error number, until the result is not
// EAGAIN.
template <class Attempt> long open_repeated(const Attempt& attempt)
{
    long fd = -EAGAIN;
    for (int tries = 0; fd == -EAGAIN && tries < kOpenTries; tries++)
        fd = attempt();
    return fd;
}

} // namespace zn

#endif
