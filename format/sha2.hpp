// sha2.hpp - the interface between digest.cpp, its only user, and the library that computes SHA-256
// and SHA-512: four functions each, modelled on those of Mbed TLS. Exactly one provider is linked
// (ZNC_DIGEST): digest_nettle.cpp or digest_mbedtls.cpp.
//
// A context is memory of the caller and holds no resources: it may be copied, and need not be
// released. With different contexts, all functions may be called in any thread, in a forked child
// and before main().
#ifndef ZNC_FORMAT_SHA2_HPP
#define ZNC_FORMAT_SHA2_HPP

#include <cstddef>

namespace znc {

inline constexpr std::size_t kSha256Len = 32;
inline constexpr std::size_t kSha512Len = 64;

// Storage for the provider's context. The providers check at compile time that it is large enough.
struct ShaContext {
    alignas(std::max_align_t) unsigned char bytes[256];
};

} // namespace znc

extern "C" {

// Initialises a context in uninitialised memory. Call starts() before any other function.
void znc_sha256_init(znc::ShaContext* context);
// False: the provider has failed. Later results of this context are meaningless.
[[nodiscard]] bool znc_sha256_starts(znc::ShaContext* context);
[[nodiscard]] bool znc_sha256_update(znc::ShaContext* context, const unsigned char* data,
                                     std::size_t len);
// Writes kSha256Len bytes.
[[nodiscard]] bool znc_sha256_finish(znc::ShaContext* context, unsigned char* out);

void znc_sha512_init(znc::ShaContext* context);
[[nodiscard]] bool znc_sha512_starts(znc::ShaContext* context);
[[nodiscard]] bool znc_sha512_update(znc::ShaContext* context, const unsigned char* data,
                                     std::size_t len);
[[nodiscard]] bool znc_sha512_finish(znc::ShaContext* context, unsigned char* out);

} // extern "C"

#endif
