// digest.hpp - digests: SHA-256 and SHA-512 of bytes as they come, and digests as text
// ("sha256:..."). Used by everything that reads or writes images. Who computes them is chosen when
// the project is built; see sha2.hpp.
#ifndef ZNC_FORMAT_DIGEST_HPP
#define ZNC_FORMAT_DIGEST_HPP

#include "format/sha2.hpp"

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace znc {

enum class DigestAlgorithm : unsigned char { kSha256, kSha512 };

// The algorithm of a digest as text: what stands before its colon, or all of it, is "sha256" or
// "sha512".
std::optional<DigestAlgorithm> digest_algorithm(std::string_view text) noexcept;

// "sha256:" and 64 hexadecimal digits in lower case, or "sha512:" and 128: what may become the name
// of a file.
bool is_digest(std::string_view text) noexcept;

// A digest as text. Empty: it could not be computed.
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

// The digest of the bytes that are added. It has failed once any step of its provider has: there is
// then no value.
class Digest {
  public:
    static constexpr std::size_t kMax = kSha512Len;

    explicit Digest(DigestAlgorithm algorithm = DigestAlgorithm::kSha256) noexcept;

    void add(const void* bytes, std::size_t count) noexcept;

    // How many bytes the value has.
    [[nodiscard]] std::size_t size() const noexcept;
    // Ends the computation and writes size() bytes. False, with `out` untouched, when it has
    // failed, and the second time.
    [[nodiscard]] bool finish(unsigned char* out) noexcept;
    // The same as text, "sha256:...".
    [[nodiscard]] DigestText text() noexcept;

  private:
    ShaContext context_;
    DigestAlgorithm algorithm_;
    bool good_;
};

} // namespace znc

#endif
