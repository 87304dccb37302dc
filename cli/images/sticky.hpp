// sticky.hpp - restores the sticky bit of directories such as /tmp. The library extracts files and
// directories with the mode bits 0777 only. Without the sticky bit every user in a container could
// delete the files of other users. When an image is unpacked, the directories that have the bit are
// listed in an annotation of the bundle's config.json; `run`, `unpack` and `create` set it in the
// container's own root once that exists.
#ifndef ZNCCTL_STICKY_HPP
#define ZNCCTL_STICKY_HPP

#include <cstdint>
#include <exception>
#include <set>
#include <string>

namespace zncctl {

// Collects the directories that have the sticky bit in an image, as seen after its last layer: at
// most 64, and none with unusual characters in its path. heard() is the callback for zncUnpackDirs.
class StickyDirectories {
  public:
    static void heard(const char* path, std::uint32_t mode, void* self) noexcept;

    // The value of the annotation. Rethrows an exception that occurred in heard().
    [[nodiscard]] std::string text() const;

  private:
    void add(const std::string& path, bool sticky);

    std::set<std::string> directories_;
    std::exception_ptr failure_;
};

// Adds the annotation to the bundle's config.json and syncs it; does nothing if the list is empty.
// False with errno set.
bool annotate_sticky(const std::string& bundle, const std::string& directories);

// Sets the sticky bit of the listed directories below `root`, which must not be shared by several
// containers. Missing directories are skipped. False with errno set if one could not be changed.
bool set_sticky(const std::string& root, const std::string& directories);

// The same for a container just created from a bundle; the list is read from its config.json.
bool restore_sticky(const std::string& id, const std::string& bundle);

} // namespace zncctl

#endif
