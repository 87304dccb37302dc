// image_list.hpp - the images of the store with what their documents say, for lists. Used by
// images, image ls and image prune.
#ifndef ZNC_CLI_IMAGES_IMAGE_LIST_HPP
#define ZNC_CLI_IMAGES_IMAGE_LIST_HPP

#include "image_store.hpp"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace zncctl {

struct ListedImage {
    StoredImage entry;
    std::string repository; // "<none>" if the image has no name
    std::string tag;
    std::string id;      // digest of the configuration; "" if the documents cannot be read
    std::string created; // RFC 3339, as the image says; "" if it says nothing
    std::int64_t size;   // of all its blobs
};

// The images, in the order in which they were added. Throws std::runtime_error.
std::vector<ListedImage> listed_images();

// The sum of the sizes that an image's manifest states for its layers; never negative.
std::int64_t layers_size(const Image& image);

// An RFC 3339 time; nullopt if the text is none. Fractions of a second are ignored.
std::optional<std::time_t> time_of(const std::string& text);

// How long ago a time was: "5 minutes ago"; "-" if there is no time.
std::string age_text(const std::string& created, std::time_t now);

// A size in decimal units: "4.17 MB".
std::string size_text(std::int64_t bytes);

} // namespace zncctl

#endif
