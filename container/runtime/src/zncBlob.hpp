// zncBlob.hpp - a file of an image layout that is read once, from its beginning to its end, and
// hashed as it is read: what its reader got is what its digest was computed of, whoever changes the
// file meanwhile. Used for layer archives, by way of the tar and gzip readers.
#ifndef ZNCBLOB_HPP
#define ZNCBLOB_HPP

#include "zncDigest.hpp"
#include "zncDigestTask.hpp"

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

    static constexpr std::size_t kTailMax = 4;
    // The last `len` bytes, up to kTailMax, ahead of their turn. verified() compares them with what
    // stands there when they are read in their turn.
    [[nodiscard]] bool read_tail(unsigned char* tail, std::size_t len);

    // Reads what is left; whether all that was read is what the digest names.
    [[nodiscard]] bool verified();

  private:
    void hash(const void* bytes, std::size_t len);
    void note_tail(const unsigned char* bytes, std::size_t len);

    UniqueFd fd_;
    std::size_t size_ = 0;
    std::size_t at_ = 0;
    const char* digest_ = nullptr;
    RunningDigest hash_;
    DigestTask aside_;   // for most of a large file
    bool alone_ = false; // there was none to be had
    std::size_t tailLen_ = 0;
    std::array<unsigned char, kTailMax> tailAhead_ = {};
    std::array<unsigned char, kTailMax> tail_ = {};
};

} // namespace znc

#endif
