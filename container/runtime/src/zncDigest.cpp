// zncDigest.cpp - see zncDigest.hpp.
#include "zncDigest.hpp"

#include <array>

#include <fcntl.h>

#include <mbedtls/sha256.h>
#include <mbedtls/sha512.h>
#include <mbedtls/version.h>

// Before 3.0 the calls that report a failure have a name of their own.
#if MBEDTLS_VERSION_NUMBER < 0x03000000
#define mbedtls_sha256_starts mbedtls_sha256_starts_ret
#define mbedtls_sha256_update mbedtls_sha256_update_ret
#define mbedtls_sha256_finish mbedtls_sha256_finish_ret
#define mbedtls_sha512_starts mbedtls_sha512_starts_ret
#define mbedtls_sha512_update mbedtls_sha512_update_ret
#define mbedtls_sha512_finish mbedtls_sha512_finish_ret
#endif

namespace {

constexpr std::size_t kReadLen = 1024;

class Sha256 {
  public:
    static constexpr std::size_t kLen = znc::kSha256Len;
    Sha256()
    {
        mbedtls_sha256_init(&ctx_);
        ok_ = mbedtls_sha256_starts(&ctx_, 0) == 0;
    }
    ~Sha256() { mbedtls_sha256_free(&ctx_); }
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(const void* data, std::size_t len)
    {
        ok_ =
            ok_ && mbedtls_sha256_update(&ctx_, static_cast<const unsigned char*>(data), len) == 0;
    }
    bool finish(unsigned char* out) { return ok_ && mbedtls_sha256_finish(&ctx_, out) == 0; }

  private:
    mbedtls_sha256_context ctx_;
    bool ok_;
};

class Sha512 {
  public:
    static constexpr std::size_t kLen = znc::kSha512Len;
    Sha512()
    {
        mbedtls_sha512_init(&ctx_);
        ok_ = mbedtls_sha512_starts(&ctx_, 0) == 0;
    }
    ~Sha512() { mbedtls_sha512_free(&ctx_); }
    Sha512(const Sha512&) = delete;
    Sha512& operator=(const Sha512&) = delete;

    void update(const void* data, std::size_t len)
    {
        ok_ =
            ok_ && mbedtls_sha512_update(&ctx_, static_cast<const unsigned char*>(data), len) == 0;
    }
    bool finish(unsigned char* out) { return ok_ && mbedtls_sha512_finish(&ctx_, out) == 0; }

  private:
    mbedtls_sha512_context ctx_;
    bool ok_;
};

// Feeds `size` bytes of the file to `hash`; false when a read fails or the file ends before.
template <class Hash> bool hash_file(Hash& hash, int fd, off_t size)
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
        hash.update(buffer.get(), static_cast<std::size_t>(n));
        size -= n;
    }
    return true;
}

// Two characters per byte, in whatever case.
template <std::size_t N> void parse_hex(std::array<unsigned char, N>& out, const char* text)
{
    for (std::size_t i = 0; i < N; ++i) {
        const char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
        out[i] = static_cast<unsigned char>(::strtoul(pair, nullptr, 16));
    }
}

template <class Hash> STATUS validate(const char* file_name, const char* digest)
{
    constexpr std::size_t digits = 2 * Hash::kLen;
    if (file_name == nullptr || digest == nullptr || ::strnlen(digest, digits) != digits)
        return ERROR;
    struct stat st = {};
    const znc::UniqueFd fd = znc::open_blob(file_name, &st);
    if (!fd)
        return ERROR;
    Hash hash;
    std::array<unsigned char, Hash::kLen> have = {};
    std::array<unsigned char, Hash::kLen> want = {};
    if (!hash_file(hash, fd.get(), st.st_size) || !hash.finish(have.data()))
        return ERROR;
    parse_hex(want, digest);
    return have == want ? OK : ERROR;
}

} // namespace

znc::UniqueFd znc::open_blob(const char* path, struct stat* st)
{
    if (::stat(path, st) != 0 || !S_ISREG(st->st_mode))
        return {};
    // Not blocking: a FIFO that has come into its place must not hold the caller up.
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (fd && (::fstat(fd.get(), st) != 0 || !S_ISREG(st->st_mode)))
        fd.reset();
    return fd;
}

bool znc::chain_digest(std::uint8_t (&chain)[kSha256Len], std::string_view prefix,
                       std::string_view hex)
{
    Sha256 hash;
    hash.update(prefix.data(), prefix.size());
    hash.update(hex.data(), hex.size());
    return hash.finish(chain);
}

STATUS validateSha256(const char* fileName, const char* digest)
{
    return validate<Sha256>(fileName, digest);
}

STATUS validateSha512(const char* fileName, const char* digest)
{
    return validate<Sha512>(fileName, digest);
}
