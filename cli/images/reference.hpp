// reference.hpp - names of images as registries and container engines write them:
// "docker.io/library/busybox:latest", "busybox", "quay.io/org/app@sha256:...". They are untrusted
// text from users and documents; nothing here uses them as paths. Used by the image store and the
// commands that take names of images.
#ifndef ZNC_CLI_IMAGES_REFERENCE_HPP
#define ZNC_CLI_IMAGES_REFERENCE_HPP

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

// A full name: registry and path, and either a tag or a digest.
struct Reference {
    std::string repository; // "docker.io/library/busybox"
    std::string tag;        // "" if there is a digest
    std::string digest;     // "sha256:..." or ""

    [[nodiscard]] std::string text() const;
};

// The registries that are added to short names: for images made on this machine, and for pulled
// ones.
inline constexpr const char* kLocalHost = "localhost";
inline constexpr const char* kDefaultRegistry = "docker.io";

// Parses a name, adds the registry `host` if it names none ("docker.io" also adds "library/" to a
// name of one component), and the tag "latest" if it has neither a tag nor a digest. A tag beside a
// digest is dropped. Nullopt if it is not a valid name.
std::optional<Reference> parse_reference(std::string_view text, const char* host);

// The full names that a name can mean, in the order in which they are looked for: the name itself
// if it names its registry, otherwise below localhost and docker.io. Empty if it is not valid.
std::vector<Reference> possible_references(std::string_view text);

// Whether the text is a prefix of an image id, or an id: hexadecimal digits, maybe after "sha256:".
bool is_id_prefix(std::string_view text);

// The hexadecimal digits of an id or a prefix of one.
std::string_view id_digits(std::string_view id);

} // namespace zncctl

#endif
