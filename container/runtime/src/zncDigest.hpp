// zncDigest.hpp - SHA-256 and SHA-512: files against the digests that name them, and the chain
// identifier of a stack of layers. Used by the image reader only. All calls of Mbed TLS are in
// zncDigest.cpp. Left out: splitting a digest into algorithm and value (zncImageLib_validate.cpp).
#ifndef ZNCDIGEST_HPP
#define ZNCDIGEST_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <cstdint>
#include <string_view>

#include <sys/stat.h>

namespace znc {

inline constexpr std::size_t kSha256Len = 32;
inline constexpr std::size_t kSha512Len = 64;

// Opens the regular file `path` for reading and gives its status. Anything else is not opened: a
// layout may hold links to devices, and some of those act on being opened.
[[nodiscard]] UniqueFd open_blob(const char* path, struct stat* st);

// One step of the chain: `chain` becomes the SHA-256 of `prefix` (empty, or the chain so far)
// followed by the characters of `hex`. False if it cannot be computed.
[[nodiscard]] bool chain_digest(std::uint8_t (&chain)[kSha256Len], std::string_view prefix,
                                std::string_view hex);

} // namespace znc

// Hash the regular file `fileName` and compare with the first 64 (128) hexadecimal digits of
// `digest`. ERROR on any difference; the task error number says more only when memory was short
// (ENOMEM).
STATUS validateSha256(const char* fileName, const char* digest);
STATUS validateSha512(const char* fileName, const char* digest);

#endif
