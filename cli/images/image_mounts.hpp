// image_mounts.hpp - the mounts that an image requests in its "Volumes". Used by image_settings.
#ifndef ZNC_CLI_IMAGES_IMAGE_MOUNTS_HPP
#define ZNC_CLI_IMAGES_IMAGE_MOUNTS_HPP

#include <optional>
#include <string>
#include <vector>

namespace zncctl {

struct ImageMount {
    enum class Kind {
        kVolume, // a directory of the image itself: nothing is mounted
        kMemory, // tmpfs
        kHost,   // a directory or file of the host
        kKernel  // any other type of file system
    };

    Kind kind = Kind::kVolume;
    std::string source;
    std::string destination;
    std::string type;
    std::vector<std::string> options;
};

// Parses a key of "Volumes" with the library's own parser.
ImageMount read_mount(const std::string& key);

// A description for messages, such as "the host's /a at /b".
std::string text_of_mount(const ImageMount& mount);

// A key for this mount with the options that an image may set: always "nosuid" and "nodev", never
// "rbind" or mount propagation. Nullopt if an image may not have the mount at all.
std::optional<std::string> permitted_key(const ImageMount& mount, bool allow_host);

} // namespace zncctl

#endif
