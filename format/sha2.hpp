// sha2.hpp - SHA-256 and SHA-512 as the digest module asks for them: four calls for each, the same
// as those of Mbed TLS. Exactly one provider is linked (ZNC_DIGEST): digest_nettle.cpp or
// digest_mbedtls.cpp. Nobody but digest.cpp calls this.
//
// A context is memory of the caller's and holds no resources: it may be copied and forgotten. All
// calls are safe in any thread, in a forked child and before main(), on different contexts.
#ifndef ZNC_FORMAT_SHA2_HPP
#define ZNC_FORMAT_SHA2_HPP

#include <cstddef>

namespace znc {

inline constexpr std::size_t kSha256Len = 32;
inline constexpr std::size_t kSha512Len = 64;

// Room for a provider's own context, which says at compile time if it is too small.
struct ShaContext {
    alignas(std::max_align_t) unsigned char bytes[256];
};

} // namespace znc

extern "C" {

// Makes any memory a context; it is of no use before it is started.
void znc_sha256_init(znc::ShaContext* context);
// False: the provider has failed, and nothing that it says of this context means anything.
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
