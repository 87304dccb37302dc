// layout.hpp - reads the index, manifests and configurations of an OCI image layout, for lists and
// reports, and for `run` and `unpack`, which check the documents read here and pass exactly these
// on to the library. Reading never blocks, every document is compared with its digest, and JSON
// members are looked up as the library looks them up. Used by the image commands, spec, unpack and
// run.
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
    std::int64_t size = -1; // -1: missing
};

struct Image { // NOLINT(bugprone-exception-escape): moving a JSON value does not throw
    Descriptor manifest;
    std::string problem; // why its documents do not allow unpacking; "": no problem found
    std::string tag;     // "" if the index has no name for it
    std::string os;
    std::string arch;
    Descriptor config;
    std::vector<Descriptor> layers;
    Json config_document;    // null if it cannot be read
    std::string platform_os; // of the index entry, "" if it has none
    std::string platform_arch;
};

struct ImageName {
    std::string layout;
    std::string tag;
};

// Parses "LAYOUT[:TAG]". If the whole text names a directory, it is a layout without a tag.
ImageName split_image_name(const std::string& text);

// Nullopt with `problem` set if the index cannot be read, or if a document is refused, for example
// for a duplicate key or an invalid digest in an index entry. In the second case `*refused` becomes
// true: the library and other programs might read such a layout differently.
std::optional<std::vector<Image>> read_layout(const std::string& path, std::string& problem,
                                              bool* refused = nullptr);

// The image with this manifest, whether or not an index lists it: reads only its documents. What is
// wrong with them is its `problem`.
Image read_image(const std::string& layout, const Descriptor& manifest);

// Whether the media types are those that the library unpacks. Its blobs are not read.
bool has_unpackable_types(const Image& image);

// The error that the library would report for the layout's "oci-layout" file: 0,
// S_zncLib_LAYOUT_NOT_FOUND or S_zncLib_LAYOUT_INVALID.
int layout_error(const std::string& path);

// The path of a blob; "" if `digest` is not a valid digest.
std::string blob_path(const std::string& layout, const std::string& digest);

// A message about the first blob of the images whose size differs from its descriptor; "" if there
// is none. The library would read such a file to its end before it fails. Blobs that cannot be
// opened are skipped.
std::string size_problem(const std::string& layout, const std::vector<Image>& images);

// The image that would be unpacked; null if there is none. Without an operating system ("") it is
// that of the only image with this tag and architecture, or Linux if there are several.
const Image* find_image(const std::vector<Image>& images, const std::string& tag,
                        const std::string& os, const std::string& arch);
Image* find_image(std::vector<Image>& images, const std::string& tag, const std::string& os,
                  const std::string& arch);

// If the layout does not have the image, prints a hint that lists the images it has. False if it
// has the image or cannot be read.
bool hint_at_images(const std::string& layout, const std::string& tag, const std::string& os,
                    const std::string& arch);

inline constexpr const char* kDefaultTag = "latest";
// The platform of a new image that is made from a plain root filesystem.
inline constexpr const char* kDefaultOs = "zarnel";
inline constexpr const char* kDefaultArch = "amd64";
inline constexpr const char* kHostOs = "linux";

// The architecture of this machine, as images name it.
std::string host_arch();

} // namespace zncctl

#endif
