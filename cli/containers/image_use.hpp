// image_use.hpp - the disk usage of the image store, and how much of it is needed by containers.
// Used by storage df.
#ifndef ZNC_CLI_CONTAINERS_IMAGE_USE_HPP
#define ZNC_CLI_CONTAINERS_IMAGE_USE_HPP

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zncctl {

struct ImageUse {
    std::size_t count = 0; // images, each once, however many names it has
    std::size_t used = 0;  // images that containers were made from
    std::uint64_t bytes = 0;
    std::uint64_t unused_bytes = 0; // of blobs that no used image needs
};

// Nullopt with errno set if the daemon sends no list of containers. Throws std::runtime_error if
// the store cannot be read.
std::optional<ImageUse> image_use();

} // namespace zncctl

#endif
