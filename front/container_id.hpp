// container_id.hpp - container ids where they become names of files. Used by record, store and
// sticky.
#ifndef ZNC_FRONT_CONTAINER_ID_HPP
#define ZNC_FRONT_CONTAINER_ID_HPP

#include <string>
#include <string_view>

namespace zncctl {

// What the library takes for an id, and so one name in a directory.
inline bool is_container_id(std::string_view id)
{
    constexpr std::size_t kIdMax = 255;
    return !id.empty() && id.size() <= kIdMax && id != "." && id != ".." &&
           id.find_first_of(std::string_view("/\\\0", 3)) == id.npos;
}

// Of an id as long as ids may be the daemon keeps all bytes but the last.
inline std::string kept_id(const std::string& id)
{
    return id.substr(0, 254);
}

} // namespace zncctl

#endif
