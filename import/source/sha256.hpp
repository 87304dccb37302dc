// sha256.hpp - digests of large streams. Used by the code that reads and writes layers.
//
// Uses Nettle, which libarchive depends on anyway and which uses the SHA instructions of the
// processor; the Mbed TLS of the library does not. Small documents use digest.hpp.
#ifndef ZNC_IMPORT_SOURCE_SHA256_HPP
#define ZNC_IMPORT_SOURCE_SHA256_HPP

#include <cstddef>
#include <span>
#include <string>

#include <nettle/sha2.h>

namespace zncimport {

class Sha256 {
  public:
    Sha256() { nettle_sha256_init(&context_); }

    void add(std::span<const std::byte> bytes);
    // Returns "sha256:..."; call it only once.
    std::string text();

  private:
    sha256_ctx context_ = {};
};

} // namespace zncimport

#endif
