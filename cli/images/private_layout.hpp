// private_layout.hpp - a temporary layout of one image that no other user can change. It is passed
// to the library instead of the original layout. Its documents are the ones that zncctl has read
// and checked, so that exactly these are unpacked even if the original layout changes afterwards.
// Its layers are links to files that are held open.
#ifndef ZNC_CLI_IMAGES_PRIVATE_LAYOUT_HPP
#define ZNC_CLI_IMAGES_PRIVATE_LAYOUT_HPP

#include "front/layout.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"

namespace zncctl {

// The open layer files. The constructor throws std::runtime_error if one cannot be opened or has
// the wrong size.
class LayerFiles {
  public:
    LayerFiles(const std::string& layout, const Image& image);

    // Paths by which the files can be opened again, lowest layer first.
    [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }

  private:
    std::vector<std::string> paths_; // one for each layer; equal for layers with the same blob
    std::vector<znc::UniqueFd> files_;
};

class PrivateLayout : znc::NotCopied {
  public:
    // Creates the layout below `area`, a directory that only this user can write to, with
    // `configuration` instead of the image's own. Throws std::runtime_error.
    PrivateLayout(const std::string& area, const Image& image, const LayerFiles& layers,
                  const Json& configuration);
    ~PrivateLayout();

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    void fill(const Image& image, const LayerFiles& layers, const Json& configuration) const;
    [[nodiscard]] Json add_blob(const std::string& media_type, const std::string& bytes) const;
    void write(const std::string& name, const std::string& text) const;

    std::string path_;
    znc::UniqueFd dir_; // locked; an unlocked layout was left by a process that was killed
};

} // namespace zncctl

#endif
