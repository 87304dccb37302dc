// zncDigest.cpp - see zncDigest.hpp.
#include "zncDigest.hpp"

#include "base/file.hpp"

#include <array>
#include <cstring>

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
void parse_hex(unsigned char* out, std::size_t len, const char* text)
{
    for (std::size_t i = 0; i < len; ++i) {
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
    const znc::UniqueFd fd = znc::open_regular(file_name, &st);
    if (!fd)
        return ERROR;
    Hash hash;
    std::array<unsigned char, Hash::kLen> have = {};
    std::array<unsigned char, Hash::kLen> want = {};
    if (!hash_file(hash, fd.get(), st.st_size) || !hash.finish(have.data()))
        return ERROR;
    parse_hex(want.data(), want.size(), digest);
    return have == want ? OK : ERROR;
}

} // namespace

// Both algorithms' contexts: one is used.
struct znc::RunningDigest::State {
    mbedtls_sha256_context narrow;
    mbedtls_sha512_context wide;
    bool isWide;
    bool good;
    std::array<unsigned char, kSha512Len> want;
};

void znc::RunningDigest::StateDeleter::operator()(State* state) const noexcept
{
    const MallocPtr<State> memory(state);
    mbedtls_sha256_free(&state->narrow);
    mbedtls_sha512_free(&state->wide);
}

const char* znc::digest_digits(const char* digest, char (&buffer)[kDigestTextMax], bool* wide)
{
    // A digest is one name in a directory. With a separator in it, a file that was checked under
    // one digest would be kept under another.
    if (digest == nullptr || std::strchr(digest, '/') != nullptr)
        return nullptr;
    (void)copy_end(buffer, buffer + sizeof buffer, digest);
    char* rest = nullptr;
    const char* const algorithm = ::strtok_r(buffer, ":", &rest);
    const char* const digits = algorithm != nullptr ? ::strtok_r(nullptr, ":", &rest) : nullptr;
    if (digits == nullptr)
        return nullptr;
    *wide = std::strcmp(algorithm, "sha512") == 0;
    return *wide || std::strcmp(algorithm, "sha256") == 0 ? digits : nullptr;
}

bool znc::RunningDigest::start(const char* digest)
{
    state_.reset();
    char buffer[kDigestTextMax];
    bool wide = false;
    const char* const digits = digest_digits(digest, buffer, &wide);
    const std::size_t len = wide ? kSha512Len : kSha256Len;
    if (digits == nullptr || ::strnlen(digits, 2 * len) != 2 * len)
        return false;
    state_.reset(malloc_zeroed<State>().release());
    if (!state_)
        return false;
    mbedtls_sha256_init(&state_->narrow);
    mbedtls_sha512_init(&state_->wide);
    parse_hex(state_->want.data(), len, digits);
    state_->isWide = wide;
    state_->good = wide ? mbedtls_sha512_starts(&state_->wide, 0) == 0
                        : mbedtls_sha256_starts(&state_->narrow, 0) == 0;
    return state_->good;
}

void znc::RunningDigest::update(const void* data, std::size_t len) noexcept
{
    if (!state_ || !state_->good)
        return;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    state_->good = state_->isWide ? mbedtls_sha512_update(&state_->wide, bytes, len) == 0
                                  : mbedtls_sha256_update(&state_->narrow, bytes, len) == 0;
}

bool znc::RunningDigest::matches() noexcept
{
    if (!state_ || !state_->good)
        return false;
    state_->good = false; // it ends here
    std::array<unsigned char, kSha512Len> have = {};
    const int failed = state_->isWide ? mbedtls_sha512_finish(&state_->wide, have.data())
                                      : mbedtls_sha256_finish(&state_->narrow, have.data());
    return failed == 0 && have == state_->want;
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
