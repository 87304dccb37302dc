// directory_flags.hpp - how directories are opened that are only searched.
#ifndef ZN_POSIX_DIRECTORY_FLAGS_HPP
#define ZN_POSIX_DIRECTORY_FLAGS_HPP

#include <fcntl.h>

namespace zn {

// Systems without O_SEARCH need the right to read the directory, too.
#ifdef O_SEARCH
constexpr int kSearchFlags = O_SEARCH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#else
constexpr int kSearchFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#endif

} // namespace zn

#endif
