// private_layout.hpp - a layout of one image that nobody else can change: what the library is given
// in place of the layout that the image comes from. Its documents are those that were read and
// settled here, so that what was decided on is what is unpacked, whatever becomes of the image's
// own layout meanwhile; its layers are links to the files that are held open.
#ifndef ZNC_CLI_IMAGES_PRIVATE_LAYOUT_HPP
#define ZNC_CLI_IMAGES_PRIVATE_LAYOUT_HPP

#include "front/layout.hpp"

#include "base/owned.hpp"

namespace zncctl {

// The layers' files, open. Throws std::runtime_error for one that cannot be opened.
class LayerFiles {
  public:
    LayerFiles(const std::string& layout, const Image& image);

    // Paths by which they can be opened anew, the lowest layer first.
    [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }

  private:
    std::vector<std::string> paths_; // one for each layer, the same for the same blob
    std::vector<znc::UniqueFd> files_;
};

class PrivateLayout {
  public:
    // Below `area`, a directory that only this user can write to. `configuration` takes the place
    // of the image's own. Throws std::runtime_error.
    PrivateLayout(const std::string& area, const Image& image, const LayerFiles& layers,
                  const Json& configuration);
    ~PrivateLayout();
    PrivateLayout(const PrivateLayout&) = delete;
    PrivateLayout& operator=(const PrivateLayout&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    void fill(const Image& image, const LayerFiles& layers, const Json& configuration) const;
    [[nodiscard]] Json add_blob(const std::string& media_type, const std::string& bytes) const;
    void write(const std::string& name, const std::string& text) const;

    std::string path_;
    znc::UniqueFd dir_; // locked: what is not is left over from a process that was killed
};

} // namespace zncctl

#endif
