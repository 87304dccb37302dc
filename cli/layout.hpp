// layout.hpp - what an OCI image layout says it holds, without the library's checks: for lists,
// hints and reports on layouts that the library refuses. Used by the image commands, spec and run.
#ifndef ZNCCTL_LAYOUT_HPP
#define ZNCCTL_LAYOUT_HPP

#include "json.hpp"

#include <optional>
#include <vector>

namespace zncctl {

struct Descriptor {
    std::string media_type;
    std::string digest;
    double size = -1; // -1: not said
};

struct Image {
    Descriptor manifest;
    std::string tag; // "" when the index gives no name
    std::string os;
    std::string arch;
    Descriptor config;
    std::vector<Descriptor> layers;
    Json config_document;    // null when it cannot be read
    std::string platform_os; // of the index entry, "" when it has none
    std::string platform_arch;
};

struct ImageName {
    std::string layout;
    std::string tag;
};

// "LAYOUT[:TAG]": a directory with a colon in its name is taken for a layout as it stands.
ImageName split_image_name(const std::string& text);

// Nothing, and `problem` says why, when there is no index to read.
std::optional<std::vector<Image>> read_layout(const std::string& path, std::string& problem);

// Where a blob is; "" for a digest that is none.
std::string blob_path(const std::string& layout, const std::string& digest);

// The image that unpacking would take; null if there is none.
const Image* find_image(const std::vector<Image>& images, const std::string& tag,
                        const std::string& os, const std::string& arch);

// When a layout holds no such image: which ones it does hold, as a hint. False when it does hold
// it.
bool hint_at_images(const std::string& layout, const std::string& tag, const std::string& os,
                    const std::string& arch);

inline constexpr const char* kDefaultTag = "latest";
inline constexpr const char* kDefaultOs = "zarnel";
inline constexpr const char* kDefaultArch = "amd64";

} // namespace zncctl

#endif
