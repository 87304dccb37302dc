// zncPath.hpp - what separates the components of a path, for images, bundles and archives alike,
// and where the system's own areas are.
//
// Used by the container registry, the overlay devices, the layer store and the archive reader. Left
// out: the platform's own paths, which only know "/".
#ifndef ZNCPATH_HPP
#define ZNCPATH_HPP

#include <cstddef>
#include <cstdint>

inline bool pathIsSep(char ch)
{
    return ch == '/' || ch == '\\';
}

namespace znc {

// What zncBasePathGet writes, without making the directory.
std::size_t base_path_text(char* path, std::size_t bufLen, std::uint32_t type);

} // namespace znc

#endif
