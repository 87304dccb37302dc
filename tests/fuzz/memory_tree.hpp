// memory_tree.hpp - a file system in memory that takes the place of the real one, call by call,
// while an archive is extracted: as fast as memory, and it sees every name that is asked for.
//
// There are "/archive" (read only), "/target" (an empty directory) and the null device. Nothing is
// reached but one component below an open directory; what asks for more breaks a promise. Needs
// the calls of kWrapped linked with --wrap (CMakeLists.txt).
#ifndef MEMORY_TREE_HPP
#define MEMORY_TREE_HPP

#include <cstddef>
#include <string_view>

namespace memory_tree {

inline constexpr char kArchive[] = "/archive";
inline constexpr char kTarget[] = "/target";

// From here on the calls are answered from memory.
void begin(std::string_view archive);

// Back to the real file system. All descriptors must have been closed.
void end();

} // namespace memory_tree

#endif
