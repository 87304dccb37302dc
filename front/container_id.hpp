// container_id.hpp - container ids as file names.
#ifndef ZNC_FRONT_CONTAINER_ID_HPP
#define ZNC_FRONT_CONTAINER_ID_HPP

#include <string>
#include <string_view>

namespace zncctl {

// Whether the library accepts the id. Such an id is also a valid file name.
inline bool is_container_id(std::string_view id)
{
    constexpr std::size_t kIdMax = 255;
    return !id.empty() && id.size() <= kIdMax && id != "." && id != ".." &&
           id.find_first_of(std::string_view("/\\\0", 3)) == id.npos;
}

// The id as the daemon stores it: at most 254 bytes, although it accepts 255.
inline std::string kept_id(const std::string& id)
{
    return id.substr(0, 254);
}

} // namespace zncctl

#endif
