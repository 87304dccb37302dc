// layout.hpp - what an OCI image layout says it holds: for lists, reports, and for `run` and
// `unpack`, which decide on what is read here and hand exactly that on to the library. Nothing is
// waited for, every document is compared with its digest, and members are found as the library
// finds them. Used by the image commands, spec, unpack and run.
#ifndef ZNC_FRONT_LAYOUT_HPP
#define ZNC_FRONT_LAYOUT_HPP

#include "json.hpp"

#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

namespace zncctl {

struct Descriptor {
    std::string media_type;
    std::string digest;
    std::int64_t size = -1; // -1: not said
};

struct Image {
    Descriptor manifest;
    std::string problem; // why it cannot be unpacked, as far as its documents tell; "" if it can
    std::string tag;     // "" when the index gives no name
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

// Nothing, and `problem` says why, when there is no index to read or when a document is refused:
// for a key that is there twice, or a digest that is none in an index entry. `refused` is then
// true: the library might take such a layout for something else than other readers do.
std::optional<std::vector<Image>> read_layout(const std::string& path, std::string& problem,
                                              bool* refused = nullptr);

// What the library says of the layout's "oci-layout": 0, S_zncLib_LAYOUT_NOT_FOUND or
// S_zncLib_LAYOUT_INVALID.
int layout_error(const std::string& path);

// Where a blob is; "" for what is no digest.
std::string blob_path(const std::string& layout, const std::string& digest);

// The first file of the images that has another size than is said of it: "" if none has. The
// library reads such a file to its end before it says so. Files that cannot be opened are left out.
std::string size_problem(const std::string& layout, const std::vector<Image>& images);

// The image that unpacking would take; null if there is none.
const Image* find_image(const std::vector<Image>& images, const std::string& tag,
                        const std::string& os, const std::string& arch);
Image* find_image(std::vector<Image>& images, const std::string& tag, const std::string& os,
                  const std::string& arch);

// When a layout holds no such image: which ones it does hold, as a hint. False when it does hold
// it.
bool hint_at_images(const std::string& layout, const std::string& tag, const std::string& os,
                    const std::string& arch);

inline constexpr const char* kDefaultTag = "latest";
inline constexpr const char* kDefaultOs = "zarnel";
inline constexpr const char* kDefaultArch = "amd64";

} // namespace zncctl

#endif
