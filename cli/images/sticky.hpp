// sticky.hpp - the sticky bit of directories such as /tmp. Extracting layers gives files and
// directories their permission bits and nothing above them, so without it every user of a container
// could remove another's files. `run`, `unpack` and `create` put it back: the directories that have
// it are listed once, when the image is unpacked, in an annotation of the bundle's config.json, and
// get it in the container's own root when that is made.
#ifndef ZNCCTL_STICKY_HPP
#define ZNCCTL_STICKY_HPP

#include <cstdint>
#include <exception>
#include <set>
#include <string>

namespace zncctl {

// The directories that the layers of an image leave with the sticky bit: at most 64, and none with
// an odd name. Listens to zncUnpackDirs, which tells of what it verified.
class StickyDirectories {
  public:
    static void heard(const char* path, std::uint32_t mode, void* self) noexcept;

    // As the annotation has them. Throws what kept a directory from being listed.
    [[nodiscard]] std::string text() const;

  private:
    void add(const std::string& path, bool sticky);

    std::set<std::string> directories_;
    std::exception_ptr failure_;
};

// Adds the annotation to the bundle's config.json, on the medium, unless the list is empty. False
// with errno set.
bool annotate_sticky(const std::string& bundle, const std::string& directories);

// Sets it in a root that belongs to one container. Directories that are not there are left out.
// False with errno set when one could not be changed.
bool set_sticky(const std::string& root, const std::string& directories);

// The same for a container that was just created from a bundle, as its config.json says.
bool restore_sticky(const std::string& id, const std::string& bundle);

} // namespace zncctl

#endif
