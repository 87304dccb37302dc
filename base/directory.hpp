// directory.hpp - lists the entries of directories. Used by the library, the platform and the
// programs.
#ifndef ZNC_BASE_DIRECTORY_HPP
#define ZNC_BASE_DIRECTORY_HPP

#include "owned.hpp"

namespace znc {

// A stream that owns the descriptor. Null with errno set if `directory` is none or no directory.
[[nodiscard]] UniqueDir directory_stream(UniqueFd directory);

// A stream of the directory of a descriptor (O_PATH, too; not owned), which lists it from the
// start. Null with errno set.
[[nodiscard]] UniqueDir directory_listing(int directory);

// The next entry except "." and "..", valid until the next call. Null at the end, with errno 0, and
// on failure, with errno set.
[[nodiscard]] const dirent* next_entry(DIR* stream);

} // namespace znc

#endif
