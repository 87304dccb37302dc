// spool.hpp - file data on its way from the layers to the new layer: one file without a name, in
// the directory for temporary files, that goes with its descriptor. Used by sources and the merge.
#ifndef ZNC_IMPORT_SOURCE_SPOOL_HPP
#define ZNC_IMPORT_SOURCE_SPOOL_HPP

#include "stream.hpp"

namespace zncimport {

// A run of bytes in the spool.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

class Spool {
  public:
    // `directory`: "" for $TMPDIR, or /var/tmp without one.
    explicit Spool(const std::string& directory = "");

    // Writes behind everything else.
    void append(std::span<const std::byte> bytes);
    [[nodiscard]] std::uint64_t size() const { return size_; }
    // Gives back what was appended from here on.
    void cut(std::uint64_t size);

    [[nodiscard]] ReaderPtr read(Extent extent) const;
    // Of the file, borrowed.
    [[nodiscard]] int fd() const { return file_.get(); }

  private:
    znc::UniqueFd file_;
    std::uint64_t size_ = 0;
};

} // namespace zncimport

#endif
