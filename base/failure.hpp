// failure.hpp - sets errno and returns the result that reports the failure. Used by the library,
// the platform and the programs.
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

// Sets errno and returns `result`.
template <class T> T fail(int number, T result) noexcept
{
    errno = number;
    return result;
}

// 0 (OK) if the error number is 0; otherwise sets errno and returns -1 (ERROR).
inline int status_of(int number) noexcept
{
    return number == 0 ? 0 : fail(number);
}

} // namespace znc

#endif
