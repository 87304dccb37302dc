// failure.hpp - sets errno and returns -1. Used by the library and the platform.
#ifndef ZNC_BASE_FAILURE_HPP
#define ZNC_BASE_FAILURE_HPP

#include <cerrno>

namespace znc {

// Sets errno and returns -1 (ERROR).
inline int fail(int number) noexcept
{
    errno = number;
    return -1;
}

} // namespace znc

#endif
