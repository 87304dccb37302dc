// image_mounts.hpp - the mounts that an image asks for in its "Volumes". Used by image_settings.
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
        kKernel  // another file system of the kernel's
    };

    Kind kind = Kind::kVolume;
    std::string source;
    std::string destination;
    std::string type;
    std::vector<std::string> options;
};

// As the library reads a key of "Volumes".
ImageMount read_mount(const std::string& key);

// "the host's /a at /b"
std::string text_of_mount(const ImageMount& mount);

// The key that the library reads as this mount, as far as an image may have it: always "nosuid" and
// "nodev", no "rbind", no propagation. Nothing when it may not have it at all.
std::optional<std::string> permitted_key(const ImageMount& mount, bool allow_host);

} // namespace zncctl

#endif
