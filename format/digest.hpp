// digest.hpp - incremental SHA-256 and SHA-512, and digests in the notation of OCI images
// ("sha256:..."). Used by all code that reads or writes images. The library that computes them is
// chosen at build time; see sha2.hpp.
#ifndef ZNC_FORMAT_DIGEST_HPP
#define ZNC_FORMAT_DIGEST_HPP

#include "format/sha2.hpp"

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace znc {

enum class DigestAlgorithm : unsigned char { kSha256, kSha512 };

// The algorithm that `text` names before its first colon (in the whole text if there is no colon).
// Empty: neither "sha256" nor "sha512".
std::optional<DigestAlgorithm> digest_algorithm(std::string_view text) noexcept;

// Whether `text` is "sha256:" followed by 64 lower-case hexadecimal digits, or "sha512:" followed
// by 128. To be checked before a digest is used as a file name.
bool is_digest(std::string_view text) noexcept;

// A digest as text. Empty if it could not be computed.
class DigestText {
  public:
    [[nodiscard]] std::string_view view() const noexcept { return {text_.data(), size_}; }
    explicit operator bool() const noexcept { return size_ != 0; }

  private:
    friend class Digest;
    static constexpr std::size_t kPrefixLen = sizeof "sha256:" - 1;
    std::array<char, kPrefixLen + 2 * kSha512Len> text_ = {};
    std::size_t size_ = 0;
};

// Computes the digest of the bytes that are added. If any call of the provider fails, the whole
// computation has failed and there is no value.
class Digest {
  public:
    static constexpr std::size_t kMax = kSha512Len;

    explicit Digest(DigestAlgorithm algorithm = DigestAlgorithm::kSha256) noexcept;

    void add(const void* bytes, std::size_t count) noexcept;

    // Length of the binary digest in bytes.
    [[nodiscard]] std::size_t size() const noexcept;
    // Ends the computation and writes size() bytes. False, with `out` unchanged, if the computation
    // has failed or has already ended.
    [[nodiscard]] bool finish(unsigned char* out) noexcept;
    // The same, as text ("sha256:...").
    [[nodiscard]] DigestText text() noexcept;

  private:
    ShaContext context_;
    DigestAlgorithm algorithm_;
    bool good_;
};

} // namespace znc

#endif
