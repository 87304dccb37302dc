// failure.hpp - how a function of C's kind fails. Used by the library and the platform.
#ifndef ZNC_BASE_FAILURE_HPP
#define ZNC_BASE_FAILURE_HPP

#include <cerrno>

namespace znc {

// Sets the task error number. -1, the ERROR of every interface.
inline int fail(int number) noexcept
{
    errno = number;
    return -1;
}

} // namespace znc

#endif
