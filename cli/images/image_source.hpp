// image_source.hpp - what the operand of a command that takes an image means: a layout with a tag,
// a layout or an archive with a prefix ("oci:", "oci-archive:", "docker-archive:"), or an image of
// the store by name or id. Used by run, unpack, spec and the image commands.
#ifndef ZNC_CLI_IMAGES_IMAGE_SOURCE_HPP
#define ZNC_CLI_IMAGES_IMAGE_SOURCE_HPP

#include "bundle_area.hpp"
#include "front/command.hpp"
#include "image_settings.hpp"
#include "image_store.hpp"

#include <memory>
#include <optional>
#include <string>

namespace zncctl {

struct Wanted {
    ImageName image;
    std::string os; // "": see find_image() in front/layout.hpp
    std::string arch;
    std::string label; // the name in messages
    // For an image of the store: its manifest, and the lock that keeps its blobs from being
    // removed.
    std::optional<Descriptor> stored = std::nullopt;
    std::shared_ptr<BundlesInUse> in_use = nullptr;
    bool check_layers = false; // read the layers to see whether it must be converted
};

// Combines an image name with the options --os and --arch of a command.
Wanted wanted_image(const Arguments& args, ImageName image);

// Whether a text is the path of a layout and not the name of an image: it begins with "/", "./" or
// "../", or is "." or "..". Other files in the working directory do not matter, so that a directory
// there cannot take the place of an image of the store.
bool is_layout_path(const std::string& text);

// Whether an operand names an image of the store, not a layout or an archive.
bool is_image_name(const std::string& operand);

// Whether a text that could be a name is also the path of a layout below the working directory:
// "build/image:tag". An image of the store with this name takes precedence.
bool is_layout_below(const std::string& text);

// The image that an operand means. Archives are imported into the store, unless that was done
// before. Nullopt after printing a message and hints.
std::optional<Wanted> find_image(const Arguments& args, const char* operand);

// The image of the store that a name or id means, with its blobs kept. Nullopt after printing a
// message.
std::optional<Wanted> find_named(const std::string& text);

// A layout to look at: that of the operand, or one with the image of the store that the operand
// means and nothing else.
struct ShownLayout {
    std::string path;
    std::string label; // the name in messages
    std::unique_ptr<ImageStage> stage = nullptr;
    std::shared_ptr<BundlesInUse> in_use = nullptr;
    // All names of the image of the store; none for a layout.
    std::optional<std::vector<std::string>> names = std::nullopt;
};

// The layout that an operand means. Nullopt after printing a message.
std::optional<ShownLayout> layout_of(const Arguments& args, const char* operand);

// The image to unpack, and the configuration that it gets.
struct Chosen {
    Image image;
    SettledConfiguration settled;
};

// Reads the documents of an image. Nullopt after printing a message and hints.
std::optional<Chosen> choose_image(const Arguments& args, const Wanted& wanted);

// If the library refuses an image of a layout, converts it into the store, unless that was done
// before, and sets `wanted` and `chosen` to the image of the store. With `check_layers` this is
// also done if the library would leave out members. Leaves both unchanged if zncctl-import is not
// installed. False after printing a message.
bool convert_if_needed(const Arguments& args, bool check_layers, Wanted& wanted, Chosen& chosen);

// Whether an unpack that failed with this error may succeed with a converted image.
bool may_need_import(int error);

// Print hints for an image that cannot be unpacked.
void print_hints(int error, const Wanted& wanted);
void hint_at_import(const Wanted& wanted, const std::string& reason);

// Prints what the image requests but is not granted.
void print_notes(const Wanted& wanted, const Chosen& chosen);

} // namespace zncctl

#endif
