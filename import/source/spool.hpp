// spool.hpp - temporary storage for file data between reading the layers and writing the new one:
// an unnamed file in the directory for temporary files, which disappears when its descriptor is
// closed. Used by the sources and the merge.
#ifndef ZNC_IMPORT_SOURCE_SPOOL_HPP
#define ZNC_IMPORT_SOURCE_SPOOL_HPP

#include "stream.hpp"

namespace zncimport {

// A range of bytes in the spool.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

class Spool {
  public:
    // `directory` may be "": then $TMPDIR, or /var/tmp, is used.
    explicit Spool(const std::string& directory = "");

    // Appends bytes.
    void append(std::span<const std::byte> bytes);
    [[nodiscard]] std::uint64_t size() const { return size_; }

    [[nodiscard]] ReaderPtr read(Extent extent) const;
    // The descriptor of the file (not owned).
    [[nodiscard]] int fd() const { return file_.get(); }

  private:
    znc::UniqueFd file_;
    std::uint64_t size_ = 0;
};

} // namespace zncimport

#endif
