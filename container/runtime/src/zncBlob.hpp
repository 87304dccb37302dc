// zncBlob.hpp - a file of an image layout that is read once, from its beginning to its end, and
// hashed as it is read: what its reader got is what its digest was computed of, whoever changes the
// file meanwhile. Used for layer archives, by way of the tar and gzip readers.
#ifndef ZNCBLOB_HPP
#define ZNCBLOB_HPP

#include "zncDigest.hpp"

#include <array>
#include <cstddef>

#include <sys/types.h>

namespace znc {

class BlobReader {
  public:
    // `digest` must outlive the object. False with the task error number set; it is 0 when the
    // digest is none that can be computed.
    [[nodiscard]] bool open(const char* path, const char* digest);

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] std::size_t size() const { return size_; }

    // Back to the beginning.
    [[nodiscard]] bool restart();

    // The next `count` bytes; fewer only at the end, which is where the file ended when it was
    // opened. -1 on error.
    ssize_t read(void* buffer, std::size_t count);
    // The next bytes in place, as many as there are in memory, valid until the next call: their
    // number, 0 at the end, -1 on error.
    ssize_t next(const unsigned char** bytes);

    static constexpr std::size_t kTailMax = 4;
    // The last `len` bytes, up to kTailMax, ahead of their turn. verified() compares them with what
    // stands there when they are read in their turn.
    [[nodiscard]] bool read_tail(unsigned char* tail, std::size_t len);

    // Reads what is left; whether all that was read is what the digest names.
    [[nodiscard]] bool verified();

  private:
    ssize_t fetch(unsigned char* bytes, std::size_t count);
    void note_tail(const unsigned char* bytes, std::size_t len);

    UniqueFd fd_;
    std::size_t size_ = 0;
    std::size_t at_ = 0; // what was read of the file, and hashed
    const char* digest_ = nullptr;
    RunningDigest hash_;
    MallocPtr<unsigned char[]> piece_; // of the file, the last one read
    std::size_t pieceAt_ = 0;          // what was taken of it
    std::size_t pieceLen_ = 0;
    std::size_t tailLen_ = 0;
    std::array<unsigned char, kTailMax> tailAhead_ = {};
    std::array<unsigned char, kTailMax> tail_ = {};
};

} // namespace znc

#endif
