// zncDigest.cpp - see zncDigest.hpp.
#include "zncDigest.hpp"

#include "base/file.hpp"

#include <array>
#include <cstring>

namespace {

constexpr std::size_t kReadLen = 1024;

// Adds `size` bytes of the file to `hash`; false if a read fails or the file is shorter.
bool hash_file(znc::Digest& hash, int fd, off_t size)
{
    const auto buffer = znc::malloc_array<unsigned char>(kReadLen);
    if (!buffer)
        return false;
    while (size > 0) {
        const ssize_t n = ::read(fd, buffer.get(), kReadLen);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        hash.add(buffer.get(), static_cast<std::size_t>(n));
        size -= n;
    }
    return true;
}

// Parses `len` bytes of two hexadecimal digits each, in either case.
void parse_hex(unsigned char* out, std::size_t len, const char* text)
{
    for (std::size_t i = 0; i < len; ++i) {
        const char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
        out[i] = static_cast<unsigned char>(::strtoul(pair, nullptr, 16));
    }
}

STATUS validate(znc::DigestAlgorithm algorithm, const char* file_name, const char* digest)
{
    znc::Digest hash(algorithm);
    const std::size_t digits = 2 * hash.size();
    if (file_name == nullptr || digest == nullptr || ::strnlen(digest, digits) != digits)
        return ERROR;
    struct stat st = {};
    const znc::UniqueFd fd = znc::open_regular(file_name, &st);
    if (!fd)
        return ERROR;
    std::array<unsigned char, znc::Digest::kMax> have = {};
    std::array<unsigned char, znc::Digest::kMax> want = {};
    if (!hash_file(hash, fd.get(), st.st_size) || !hash.finish(have.data()))
        return ERROR;
    parse_hex(want.data(), hash.size(), digest);
    return have == want ? OK : ERROR;
}

} // namespace

const char* znc::digest_digits(const char* digest, char (&buffer)[kDigestTextMax], bool* wide)
{
    // A digest is used as a single file name. If it contained a separator, a file that was checked
    // under one digest could be stored under another.
    if (digest == nullptr || std::strchr(digest, '/') != nullptr)
        return nullptr;
    (void)copy_end(buffer, buffer + sizeof buffer, digest);
    char* rest = nullptr;
    const char* const algorithm = ::strtok_r(buffer, ":", &rest);
    const char* const digits = algorithm != nullptr ? ::strtok_r(nullptr, ":", &rest) : nullptr;
    if (digits == nullptr)
        return nullptr;
    const auto known = digest_algorithm(algorithm);
    *wide = known == DigestAlgorithm::kSha512;
    return known ? digits : nullptr;
}

bool znc::RunningDigest::start(const char* digest)
{
    hash_.reset();
    char buffer[kDigestTextMax];
    bool wide = false;
    const char* const digits = digest_digits(digest, buffer, &wide);
    const std::size_t len = wide ? kSha512Len : kSha256Len;
    if (digits == nullptr || ::strnlen(digits, 2 * len) != 2 * len)
        return false;
    want_ = {};
    parse_hex(want_.data(), len, digits);
    hash_.emplace(wide ? DigestAlgorithm::kSha512 : DigestAlgorithm::kSha256);
    return true;
}

void znc::RunningDigest::update(const void* data, std::size_t len) noexcept
{
    if (hash_)
        hash_->add(data, len);
}

bool znc::RunningDigest::matches() noexcept
{
    std::array<unsigned char, Digest::kMax> have = {};
    return hash_ && hash_->finish(have.data()) && have == want_;
}

bool znc::has_digest(const void* data, std::size_t len, const char* digest)
{
    RunningDigest hash;
    if (!hash.start(digest))
        return false;
    hash.update(data, len);
    return hash.matches();
}

bool znc::chain_digest(std::uint8_t (&chain)[kSha256Len], std::string_view prefix,
                       std::string_view hex)
{
    Digest hash;
    hash.add(prefix.data(), prefix.size());
    hash.add(hex.data(), hex.size());
    return hash.finish(chain);
}

STATUS validateSha256(const char* fileName, const char* digest)
{
    return validate(znc::DigestAlgorithm::kSha256, fileName, digest);
}

STATUS validateSha512(const char* fileName, const char* digest)
{
    return validate(znc::DigestAlgorithm::kSha512, fileName, digest);
}
