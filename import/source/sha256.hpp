// sha256.hpp - digests of large streams. Used by what reads and writes layers.
//
// By Nettle, which libarchive brings along anyway and which uses the processor's instructions for
// it: with the library's Mbed TLS, which does not, digests were half of an import's time. Small
// documents go through digest.hpp, as everywhere else.
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
    // "sha256:..."; once.
    std::string text();

  private:
    sha256_ctx context_ = {};
};

} // namespace zncimport

#endif
