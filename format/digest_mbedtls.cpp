// digest_mbedtls.cpp - SHA-256 and SHA-512 by Mbed TLS, 2.28 or 3. Mbed TLS can be built to use a
// hardware accelerator, so its calls can fail.
#include "format/sha2.hpp"

#include <new>

#include <mbedtls/sha256.h>
#include <mbedtls/sha512.h>
#include <mbedtls/version.h>

// Before 3.0 the functions that return an error have the suffix "_ret".
#if MBEDTLS_VERSION_NUMBER < 0x03000000
#define mbedtls_sha256_starts mbedtls_sha256_starts_ret
#define mbedtls_sha256_update mbedtls_sha256_update_ret
#define mbedtls_sha256_finish mbedtls_sha256_finish_ret
#define mbedtls_sha512_starts mbedtls_sha512_starts_ret
#define mbedtls_sha512_update mbedtls_sha512_update_ret
#define mbedtls_sha512_finish mbedtls_sha512_finish_ret
#endif

static_assert(sizeof(mbedtls_sha256_context) <= sizeof(znc::ShaContext));
static_assert(sizeof(mbedtls_sha512_context) <= sizeof(znc::ShaContext));

namespace {

constexpr int kFullLength = 0; // not the truncated variants SHA-224 and SHA-384

template <class Context> Context* of(znc::ShaContext* context)
{
    return std::launder(reinterpret_cast<Context*>(context->bytes));
}

} // namespace

void znc_sha256_init(znc::ShaContext* context)
{
    mbedtls_sha256_init(new (context->bytes) mbedtls_sha256_context);
}

bool znc_sha256_starts(znc::ShaContext* context)
{
    return mbedtls_sha256_starts(of<mbedtls_sha256_context>(context), kFullLength) == 0;
}

bool znc_sha256_update(znc::ShaContext* context, const unsigned char* data, std::size_t len)
{
    return mbedtls_sha256_update(of<mbedtls_sha256_context>(context), data, len) == 0;
}

bool znc_sha256_finish(znc::ShaContext* context, unsigned char* out)
{
    return mbedtls_sha256_finish(of<mbedtls_sha256_context>(context), out) == 0;
}

void znc_sha512_init(znc::ShaContext* context)
{
    mbedtls_sha512_init(new (context->bytes) mbedtls_sha512_context);
}

bool znc_sha512_starts(znc::ShaContext* context)
{
    return mbedtls_sha512_starts(of<mbedtls_sha512_context>(context), kFullLength) == 0;
}

bool znc_sha512_update(znc::ShaContext* context, const unsigned char* data, std::size_t len)
{
    return mbedtls_sha512_update(of<mbedtls_sha512_context>(context), data, len) == 0;
}

bool znc_sha512_finish(znc::ShaContext* context, unsigned char* out)
{
    return mbedtls_sha512_finish(of<mbedtls_sha512_context>(context), out) == 0;
}
