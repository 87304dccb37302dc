// image_fetcher.hpp - fetches images with skopeo, which knows registries, credentials and
// signatures, and adds them to the store. Used by pull and, through pull_policy, by run and create.
#ifndef ZNC_CLI_IMAGES_IMAGE_FETCHER_HPP
#define ZNC_CLI_IMAGES_IMAGE_FETCHER_HPP

#include "front/command.hpp"
#include "image_adder.hpp"

#include <string>
#include <vector>

namespace zncctl {

// Where an image comes from, and its name in the store.
struct FetchSource {
    std::string source; // as skopeo takes it: "docker://docker.io/library/busybox:latest"
    std::string name;   // the full name in the store
    // Of the manifest or the index that the user asked for and skopeo compares with what a registry
    // sends, or "". A digest in the name of another source is not compared with anything.
    std::string digest;
};

// What the operand of pull means: a name, or a source as skopeo names it. Nullopt if neither; then
// `problem` is set.
std::optional<FetchSource> fetch_source(const std::string& operand, std::string& problem);

// Translates a command's options about the platform and the registry to options of skopeo.
std::vector<std::string> fetch_options(const Arguments& args);

// Copies the image with skopeo, with these options for it, and adds it to the store. Throws
// std::runtime_error.
//
// A failure of skopeo is reported in one line, with a hint if the reason is a common one.
Added fetch_image(const FetchSource& what, const std::vector<std::string>& options, bool quiet);

// The message in what skopeo printed before it failed, which may be "", in one line.
std::string skopeo_message(const std::string& printed);

// What the user can do about a message of skopeo, or "".
const char* fetch_hint(const std::string& message);

} // namespace zncctl

#endif
