// zncBlob.hpp - reads a file of an image layout once, from beginning to end, and hashes it at the
// same time. The digest is thus computed from exactly the bytes that the reader received, even if
// another process modifies the file. Used for layer archives, through the tar and gzip readers.
#ifndef ZNCBLOB_HPP
#define ZNCBLOB_HPP

#include "zncDigest.hpp"
#include "zncHashBeside.hpp"

#include <array>
#include <cstddef>

#include <sys/types.h>

namespace znc {

class BlobReader {
  public:
    // `digest` must outlive the object. False with errno set; errno is 0 if the digest is malformed
    // or its algorithm is not supported.
    [[nodiscard]] bool open(const char* path, const char* digest);

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] std::size_t size() const { return size_; }

    // Starts again at the beginning, with a new digest.
    [[nodiscard]] bool restart();

    // From now on hashes in another thread, if there is a second processor.
    void hash_beside() { static_cast<void>(beside_.start(hash_)); }

    // Reads the next `count` bytes; fewer only at the end. The size is fixed when the file is
    // opened: bytes appended later are ignored. -1 on error.
    ssize_t read(void* buffer, std::size_t count);
    // The next bytes in place, as many as there are in memory, valid until the next call: their
    // number, 0 at the end, -1 on error.
    ssize_t next(const unsigned char** bytes);

    static constexpr std::size_t kTailMax = 4;
    // Reads the last `len` bytes, up to kTailMax, before the rest of the file. verified() compares
    // them with the bytes read later at the same place.
    [[nodiscard]] bool read_tail(unsigned char* tail, std::size_t len);

    // Reads the rest of the file. Returns whether everything that was read matches the digest.
    [[nodiscard]] bool verified();

  private:
    ssize_t fetch(unsigned char* bytes, std::size_t count);
    ssize_t fetch_piece();
    void note_tail(const unsigned char* bytes, std::size_t len);

    UniqueFd fd_;
    std::size_t size_ = 0;
    std::size_t offset_ =
        0; // bytes of the file that have been read, and hashed or added to beside_
    const char* digest_ = nullptr;
    RunningDigest hash_;
    HashBeside beside_;              // uses hash_ while it runs
    MallocPtr<unsigned char[]> own_; // memory for a piece
    unsigned char* piece_ = nullptr; // the last part of the file that was read
    std::size_t pieceAt_ = 0;        // bytes of it that have been consumed
    std::size_t pieceLen_ = 0;
    std::size_t tailLen_ = 0;
    std::array<unsigned char, kTailMax> tailAhead_ = {};
    std::array<unsigned char, kTailMax> tail_ = {};
};

} // namespace znc

#endif
