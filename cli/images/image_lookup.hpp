// image_lookup.hpp - finds the images of the store that a name or an id refers to.
#ifndef ZNC_CLI_IMAGES_IMAGE_LOOKUP_HPP
#define ZNC_CLI_IMAGES_IMAGE_LOOKUP_HPP

#include "image_store.hpp"

#include <string>
#include <vector>

namespace zncctl {

// The problem if the text is a name or an id that no entry has.
inline constexpr const char* kNoSuchImage = "there is no such image in the store";

// The places in `images` of the entries that a name or id means. Several entries are returned only
// for an id, and all are of the same image; none after an error, with `problem` set.
std::vector<std::size_t> find_stored(const std::vector<StoredImage>& images,
                                     const std::string& text, std::string& problem);

// Whether a name of an entry, and not its id, is what the text means.
bool has_name(const StoredImage& image, const std::string& text);

} // namespace zncctl

#endif
