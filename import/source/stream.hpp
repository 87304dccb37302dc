// stream.hpp - byte streams: files and parts of files, digests, and decompression. Used by
// archives, sources and the writer of layers.
//
// The compression is detected from the first bytes, never from a name or a media type: gzip with
// any number of members, zstd, xz, bzip2, or none.
#ifndef ZNC_IMPORT_SOURCE_STREAM_HPP
#define ZNC_IMPORT_SOURCE_STREAM_HPP

#include "limits.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "front/blob.hpp"

#include <cstddef>
#include <memory>
#include <span>

namespace zncimport {

class Reader : znc::NotCopied {
  public:
    virtual ~Reader() = default;

    // Reads at least one byte; returns 0 at the end. Throws Failure.
    virtual std::size_t read(std::span<std::byte> out) = 0;
    // Skips at most `count` bytes without reading them and returns the number skipped: 0 if
    // skipping is not possible.
    virtual std::uint64_t skip(std::uint64_t /*count*/) { return 0; }
};
using ReaderPtr = std::unique_ptr<Reader>;

// Reads a part of a seekable file; the descriptor is not owned.
ReaderPtr read_part(int fd, std::string name, std::uint64_t offset, std::uint64_t size);

// Reads a descriptor, for example a pipe, from its current position; the descriptor is not owned.
ReaderPtr read_stream(int fd, std::string name);

// Counts and hashes the bytes read through it. `source` is not owned.
class DigestReader : public Reader {
  public:
    explicit DigestReader(Reader& source) : source_(source) {}
    std::size_t read(std::span<std::byte> out) override;
    // Reads up to the end, so that trailing bytes are included in the digest.
    void drain();
    [[nodiscard]] std::uint64_t count() const { return count_; }
    // Returns "sha256:..."; call it once, at the end.
    std::string digest() { return zncctl::digest_text(digest_); }

  private:
    Reader& source_;
    znc::Digest digest_;
    std::uint64_t count_ = 0;
};

// The number of leading bytes that are needed to detect the compression, and whether they are those
// of a supported format.
constexpr std::size_t kMagicSize = 6;
bool is_compressed(std::span<const std::byte> head);

// Returns a reader of the decompressed stream that enforces the budget's limits for bytes and
// ratio. `source` is not owned, `name` is used in messages. Reads `source` to its end before it
// returns 0.
ReaderPtr plain(Reader& source, std::string name, Budget& budget);

// Reads a complete small document; throws if it is longer than `limit`.
std::string read_all(Reader& source, const std::string& name, std::uint64_t limit);

} // namespace zncimport

#endif
