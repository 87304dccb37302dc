// image_fetcher.hpp - fetches images with skopeo, which knows registries, credentials and
// signatures, and adds them to the store. Used by pull.
#ifndef ZNC_CLI_IMAGES_IMAGE_FETCHER_HPP
#define ZNC_CLI_IMAGES_IMAGE_FETCHER_HPP

#include "image_adder.hpp"

#include <string>
#include <vector>

namespace zncctl {

// Where an image comes from, and how it is called in the store.
struct FetchSource {
    std::string source; // as skopeo takes it: "docker://docker.io/library/busybox:latest"
    std::string name;   // the full name in the store
    std::string digest; // of the manifest or the index that the user asked for, or ""
};

// What the operand of pull means: a name, or a source as skopeo names it. Nullopt if neither; then
// `problem` is set.
std::optional<FetchSource> fetch_source(const std::string& operand, std::string& problem);

// Copies the image with skopeo, with these options for it, and adds it to the store. Throws
// std::runtime_error.
Added fetch_image(const FetchSource& what, const std::vector<std::string>& options, bool quiet);

} // namespace zncctl

#endif
