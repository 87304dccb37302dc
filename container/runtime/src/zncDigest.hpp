// zncDigest.hpp - compares files and documents with their SHA-256 or SHA-512 digests, and computes
// the chain ID of a stack of layers. Used by the image reader and the store.
#ifndef ZNCDIGEST_HPP
#define ZNCDIGEST_HPP

#include "format/digest.hpp"
#include "zncOwned.hpp"
#include "zncontainer.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace znc {

inline constexpr std::size_t kDigestTextMax = 256; // characters of a digest that are looked at

// Splits "ALGORITHM:DIGITS" and returns the digits, up to the next colon. Null unless the algorithm
// is sha256 or sha512; `*wide` is true for sha512.
const char* digest_digits(const char* digest, char (&buffer)[kDigestTextMax], bool* wide);

// Computes a digest incrementally and compares it with an expected one.
class RunningDigest {
  public:
    RunningDigest() = default;

    // Starts a new computation for the digest of a descriptor ("sha256:" or "sha512:" and
    // hexadecimal digits in either case; characters after these are ignored). False if it is not a
    // valid digest.
    [[nodiscard]] bool start(const char* digest);
    void update(const void* data, std::size_t len) noexcept;
    // Ends the computation. Returns whether the bytes added since start() have the digest.
    [[nodiscard]] bool matches() noexcept;

  private:
    std::optional<Digest> hash_; // nullopt: not started
    std::array<unsigned char, Digest::kMax> want_ = {};
};

// Whether the bytes in memory have the digest.
[[nodiscard]] bool has_digest(const void* data, std::size_t len, const char* digest);

// One step of the chain: `chain` becomes the SHA-256 of `prefix` (empty, or the chain so far)
// followed by the characters of `hex`. False if it cannot be computed.
[[nodiscard]] bool chain_digest(std::uint8_t (&chain)[kSha256Len], std::string_view prefix,
                                std::string_view hex);

} // namespace znc

// Hash the regular file `fileName` and compare the result with the first 64 (128) hexadecimal
// digits of `digest`. ERROR if they differ or the file cannot be read; errno is set reliably only
// if out of memory (ENOMEM).
STATUS validateSha256(const char* fileName, const char* digest);
STATUS validateSha512(const char* fileName, const char* digest);

#endif
