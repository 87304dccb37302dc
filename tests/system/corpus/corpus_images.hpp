// corpus_images.hpp - a table of image layouts with a single error.
#ifndef CORPUS_IMAGES_HPP
#define CORPUS_IMAGES_HPP

#include "layout_builder.hpp"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace corpus {

// An image of one layer with one file. Every value can be replaced by another JSON text, by its
// place:
//
//     oci-layout index manifest config
//         whole documents; $DOC is the original one
//     entry.digest config.size layer.mediaType
//         values of the three descriptors; $D are the original digits, $N is the original size, and
//         $N+1 and $N-1 are the sizes next to it
//     manifest.first manifest.extra
//         members added before and after the others; the same for index, document (the
//         configuration) and entry
//     section diff_ids layers
//         the configuration's "config" and "diff_ids", and the manifest's "layers" ($DOC is the
//         original one)
//
// The empty text omits a value. Digests and sizes are those of what was written.
class Draft {
  public:
    std::map<std::string, std::string> set;

    void write(const layout::Layout& layout);

    // Properties of what was written, for later damage.
    layout::fs::path layer_file, config_file, manifest_file, index_file, version_file;
    [[nodiscard]] const std::string& layer() const { return layer_; }

  private:
    [[nodiscard]] std::string text(const std::string& place, const std::string& otherwise) const;
    [[nodiscard]] std::string descriptor(const std::string& place, const std::string& type,
                                         const std::string& bytes) const;
    [[nodiscard]] std::string object(const std::string& place, const std::string& members) const;

    std::string layer_ = layout::tar({{"file", "content"}});
};

struct ImageCase {
    std::string name;
    int code; // the expected error number; -1: the image is valid
    std::map<std::string, std::string> set = {};
    std::function<void(const Draft&)> then = nullptr; // runs after the image was written
    // For a valid image, the expected JSON text by path in "config.json" ("process.cwd").
    std::map<std::string, std::string> configuration = {};
};

std::vector<ImageCase> digest_cases();
std::vector<ImageCase> size_cases();
std::vector<ImageCase> file_cases();
std::vector<ImageCase> json_cases();
std::vector<ImageCase> structure_cases();
std::vector<ImageCase> configuration_cases();

} // namespace corpus

#endif
