// directory.hpp - lists the entries of directories. Used by the library, the platform and the
// programs.
#ifndef ZNC_BASE_DIRECTORY_HPP
#define ZNC_BASE_DIRECTORY_HPP

#include "owned.hpp"

namespace znc {

// A stream that takes ownership of the descriptor. Null with errno set if `directory` is invalid or
// not a directory.
[[nodiscard]] UniqueDir directory_stream(UniqueFd directory);

// A stream that lists the directory from the beginning. The descriptor, which may be O_PATH, is not
// owned. Null with errno set.
[[nodiscard]] UniqueDir directory_listing(int directory);

// The next entry except "." and "..", valid until the next call. Null at the end, with errno 0, and
// on failure, with errno set.
[[nodiscard]] const dirent* next_entry(DIR* stream);

} // namespace znc

#endif
