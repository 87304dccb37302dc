// archive_copy.hpp - an archive whose content cannot change any more after its digest was computed,
// so that the digest identifies the images imported from it. Used by image_source and load.
#ifndef ZNC_CLI_IMAGES_ARCHIVE_COPY_HPP
#define ZNC_CLI_IMAGES_ARCHIVE_COPY_HPP

#include "base/owned.hpp"

#include <string>

namespace zncctl {

class ArchiveCopy {
  public:
    // Reads the file, "-": standard input. A file that other users can change, or that is not a
    // regular file, is copied to an unnamed file in the storage base. Throws std::runtime_error.
    explicit ArchiveCopy(const std::string& path);

    [[nodiscard]] int fd() const; // at the beginning of the archive
    // For messages: the path, or "standard input".
    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] const std::string& digest() const { return digest_; }

  private:
    std::string name_;
    znc::UniqueFd file_;
    std::string digest_;
};

} // namespace zncctl

#endif
