// stream.hpp - bytes from one end to the other: files and parts of files, digests on the way, and
// decompression. Used by archives, sources and the writer of layers.
//
// Compression is told by the first bytes, never by a name or a media type: gzip of any number of
// members, zstd, xz, bzip2, or none.
#ifndef ZNC_IMPORT_SOURCE_STREAM_HPP
#define ZNC_IMPORT_SOURCE_STREAM_HPP

#include "limits.hpp"

#include "base/owned.hpp"
#include "front/blob.hpp"

#include <cstddef>
#include <memory>
#include <span>

namespace zncimport {

class Reader {
  public:
    Reader() = default;
    virtual ~Reader() = default;
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The next bytes, at least one; 0 at the end. Throws Failure.
    virtual std::size_t read(std::span<std::byte> out) = 0;
    // Passes over at most that many bytes without looking at them, and says over how many: none
    // where that is not possible.
    virtual std::uint64_t skip(std::uint64_t /*count*/) { return 0; }
};
using ReaderPtr = std::unique_ptr<Reader>;

// Part of a file that can be read at any place; the descriptor is borrowed.
ReaderPtr read_part(int fd, std::string name, std::uint64_t offset, std::uint64_t size);

// What a descriptor gives from where it stands, a pipe for example; it is borrowed.
ReaderPtr read_stream(int fd, std::string name);

// Counts and hashes what passes. `source` is borrowed.
class DigestReader : public Reader {
  public:
    explicit DigestReader(Reader& source) : source_(source) {}
    std::size_t read(std::span<std::byte> out) override;
    // Reads up to the end, so that trailing bytes count too.
    void drain();
    [[nodiscard]] std::uint64_t count() const { return count_; }
    // "sha256:..."; once, at the end.
    std::string digest() { return zncctl::digest_text(digest_); }

  private:
    Reader& source_;
    znc::Digest digest_;
    std::uint64_t count_ = 0;
};

// The most bytes that tell how a stream is compressed, and whether these do.
constexpr std::size_t kMagicSize = 6;
bool is_compressed(std::span<const std::byte> head);

// The plain bytes of a stream, held to the budget's bytes and ratio. `source` is borrowed, `name`
// is for messages. The result reads `source` up to its end before it says 0.
ReaderPtr plain(Reader& source, std::string name, Budget& budget);

// A small document as a whole; throws when it is longer than `limit`.
std::string read_all(Reader& source, const std::string& name, std::uint64_t limit);

} // namespace zncimport

#endif
