// layer_check.hpp - runs zncLayerCheck, the library's dry run of the extractor, on the archive of a
// layer and describes the findings as text.
#ifndef ZNCCTL_LAYER_CHECK_HPP
#define ZNCCTL_LAYER_CHECK_HPP

#include <string>
#include <vector>

namespace zncctl {

// Texts of findings that importing the image does not change.
inline constexpr const char* kModeFinding = "set-id or sticky bit: dropped";
inline constexpr const char* kOwnerFinding = "owner other than root: dropped";
// Texts of findings about damage, which importing does not repair.
inline constexpr const char* kHeaderFinding = "the header is damaged";
inline constexpr const char* kCutFinding = "the archive ends within a member";
inline constexpr const char* kContentFinding = " does not match its digest"; // the end of the text
inline constexpr const char* kDiffIdFinding =
    "its content is not what the image's configuration says";

struct Finding {
    bool refused; // unpacking or image check refuses it; false: dropped or changed
    std::string what;
    std::size_t count;
    std::string first; // the first member it was found at; "" for the archive itself
};

// `digest` is that of the file, `diff_id` that of the uncompressed archive, "" if not known.
std::vector<Finding> check_layer(const std::string& path, const std::string& digest,
                                 const std::string& diff_id);

} // namespace zncctl

#endif
