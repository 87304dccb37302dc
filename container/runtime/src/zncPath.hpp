// zncPath.hpp - the path separators accepted in images, bundles and archives, and the paths of the
// storage base.
//
// Used by the container registry, the overlay devices, the layer store and the archive reader. Host
// paths in the platform module only use "/".
#ifndef ZNCPATH_HPP
#define ZNCPATH_HPP

#include <cstddef>
#include <cstdint>

// The storage base if the environment names none.
#ifndef ZNC_STORE_BASE // an option of the build
#define ZNC_STORE_BASE "/ram0/znc"
#endif

inline bool pathIsSep(char ch)
{
    return ch == '/' || ch == '\\';
}

namespace znc {

// Like zncBasePathGet, but does not create or check the directory.
std::size_t base_path_text(char* path, std::size_t bufLen, std::uint32_t type);

} // namespace znc

#endif
