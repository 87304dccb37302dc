// gzip_length.hpp - what the last four bytes of a gzip file say, which is what its reader goes by.
#ifndef GZIP_LENGTH_HPP
#define GZIP_LENGTH_HPP

#include <cstddef>
#include <string_view>

namespace fuzz {

inline std::size_t announced_size(std::string_view file)
{
    std::size_t size = 0;
    for (std::size_t i = 1; i <= 4 && i <= file.size(); ++i)
        size = size << 8 | static_cast<unsigned char>(file[file.size() - i]);
    return size;
}

// Whether going through an archive takes as long as its own bytes suggest: a gzip file of thirty
// may announce four gigabytes, and that many are then gone through.
inline bool is_quick_archive(std::string_view file)
{
    constexpr std::size_t kQuick = std::size_t{256} * 1024;
    return !file.starts_with("\x1f\x8b") || announced_size(file) <= kQuick;
}

} // namespace fuzz

#endif
