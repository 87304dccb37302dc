// overlay_options.hpp - the options of mount() for overlayfs, which fit in a page. Used where an
// overlay is mounted on kernels that do not take layers one by one.
#ifndef ZN_OVERLAY_OPTIONS_HPP
#define ZN_OVERLAY_OPTIONS_HPP

#include <cstring>
#include <string_view>

namespace zn {

class OverlayOptions {
  public:
    // Appends `key` as it is, and a path, in which characters that separate options and layers are
    // escaped.
    void add(std::string_view key, const char* path)
    {
        put(key);
        for (; *path != '\0'; path++) {
            if (*path == ':' || *path == ',' || *path == '\\')
                put("\\");
            put({path, 1});
        }
    }
    [[nodiscard]] bool fits() const { return fits_; }
    [[nodiscard]] const char* text() const { return text_; }

  private:
    void put(std::string_view more)
    {
        fits_ = fits_ && len_ + more.size() < sizeof text_;
        if (!fits_)
            return;
        std::memcpy(text_ + len_, more.data(), more.size());
        len_ += more.size();
    }

    char text_[4096] = {};
    std::size_t len_ = 0;
    bool fits_ = true;
};

} // namespace zn

#endif
