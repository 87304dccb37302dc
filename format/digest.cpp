#include "format/digest.hpp"

#include <algorithm>

namespace {

constexpr std::string_view kSha256Prefix = "sha256:";
constexpr std::string_view kSha512Prefix = "sha512:";
constexpr std::string_view kDigits = "0123456789abcdef";

} // namespace

namespace znc {

std::optional<DigestAlgorithm> digest_algorithm(std::string_view text) noexcept
{
    const std::string_view name = text.substr(0, text.find(':'));
    if (name == "sha256")
        return DigestAlgorithm::kSha256;
    if (name == "sha512")
        return DigestAlgorithm::kSha512;
    return std::nullopt;
}

bool is_digest(std::string_view text) noexcept
{
    const std::size_t bytes = text.starts_with(kSha256Prefix)   ? kSha256Len
                              : text.starts_with(kSha512Prefix) ? kSha512Len
                                                                : 0;
    return bytes != 0 && text.size() == kSha256Prefix.size() + 2 * bytes &&
           text.find_first_not_of(kDigits, kSha256Prefix.size()) == text.npos;
}

Digest::Digest(DigestAlgorithm algorithm) noexcept : algorithm_(algorithm)
{
    if (algorithm_ == DigestAlgorithm::kSha512) {
        znc_sha512_init(&context_);
        good_ = znc_sha512_starts(&context_);
    } else {
        znc_sha256_init(&context_);
        good_ = znc_sha256_starts(&context_);
    }
}

void Digest::add(const void* bytes, std::size_t count) noexcept
{
    if (!good_ || count == 0)
        return;
    const auto* const data = static_cast<const unsigned char*>(bytes);
    good_ = algorithm_ == DigestAlgorithm::kSha512 ? znc_sha512_update(&context_, data, count)
                                                   : znc_sha256_update(&context_, data, count);
}

std::size_t Digest::size() const noexcept
{
    return algorithm_ == DigestAlgorithm::kSha512 ? kSha512Len : kSha256Len;
}

bool Digest::finish(unsigned char* out) noexcept
{
    if (!good_)
        return false;
    good_ = false; // a second call fails
    std::array<unsigned char, kMax> value = {};
    if (!(algorithm_ == DigestAlgorithm::kSha512 ? znc_sha512_finish(&context_, value.data())
                                                 : znc_sha256_finish(&context_, value.data())))
        return false;
    std::copy_n(value.data(), size(), out);
    return true;
}

DigestText Digest::text() noexcept
{
    std::array<unsigned char, kMax> value = {};
    DigestText text;
    if (!finish(value.data()))
        return text;
    const std::string_view prefix =
        algorithm_ == DigestAlgorithm::kSha512 ? kSha512Prefix : kSha256Prefix;
    char* out = std::copy(prefix.begin(), prefix.end(), text.text_.data());
    for (std::size_t i = 0; i < size(); i++) {
        *out++ = kDigits[value[i] >> 4];
        *out++ = kDigits[value[i] & 0xf];
    }
    text.size_ = static_cast<std::size_t>(out - text.text_.data());
    return text;
}

} // namespace znc
