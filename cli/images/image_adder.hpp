// image_adder.hpp - adds images to the store: layouts whose images the library unpacks as they are,
// with their own layers and digests, and everything else as zncctl-import converts it.
#ifndef ZNC_CLI_IMAGES_IMAGE_ADDER_HPP
#define ZNC_CLI_IMAGES_IMAGE_ADDER_HPP

#include "image_store.hpp"

#include <string>
#include <vector>

namespace zncctl {

// What is to be imported.
struct ImportSource {
    std::string operand;              // of zncctl-import
    int input = -1;                   // its standard input
    std::string input_name;           // its name in messages; "" for the usual one
    std::vector<std::string> options; // for zncctl-import
};

// Options for an implicit import: drop devices, and split long link targets into chains of links.
inline std::vector<std::string> usual_options()
{
    return {"--devices=drop", "--long-links=hop"};
}

// The result of adding an image.
struct Added {
    int status = 0;       // exit status; a message was printed if it is not kExitOk
    bool missing = false; // zncctl-import is not installed
    StoredImage image;
    std::string id; // digest of the configuration
};

// Converts an image with zncctl-import and adds it to the store under the full names, or without a
// name. `source` as in StoredImage. Throws std::runtime_error.
Added add_converted(const ImportSource& what, const std::vector<std::string>& names,
                    const std::string& source);

// Adds the only image of a layout in a stage: as it is, if the library can unpack all of it,
// otherwise converted, unless that was done before. `source` is "" if it is the image's manifest,
// or the digest of a manifest or an index that was compared with what was copied into the layout.
// Throws std::runtime_error.
Added add_layout(const std::string& layout, const std::vector<std::string>& names,
                 std::string source);

enum class Fitness {
    kPlain,     // the library can unpack it as it is
    kConverted, // it must be converted: the library refuses its documents or layers, or would leave
                // out something of them that a conversion keeps
    kDamaged    // a layer is not what its digest or size says
};

// Reads all layers of an image, unless the media types already show that it must be converted.
Fitness fitness_of(const std::string& layout, const Image& image);

// Prints that zncctl-import could not be started because of `error`; returns an exit status.
int import_failure(int error);

} // namespace zncctl

#endif
