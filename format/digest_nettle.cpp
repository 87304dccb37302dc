// digest_nettle.cpp - SHA-256 and SHA-512 by Nettle, which selects the processor's SHA instructions
// when it is loaded. Its functions cannot fail.
#include "format/sha2.hpp"

#include <new>

#include <nettle/sha2.h>

static_assert(sizeof(sha256_ctx) <= sizeof(znc::ShaContext));
static_assert(sizeof(sha512_ctx) <= sizeof(znc::ShaContext));
static_assert(SHA256_DIGEST_SIZE == znc::kSha256Len && SHA512_DIGEST_SIZE == znc::kSha512Len);

namespace {

template <class Context> Context* of(znc::ShaContext* context)
{
    return std::launder(reinterpret_cast<Context*>(context->bytes));
}

} // namespace

void znc_sha256_init(znc::ShaContext* context)
{
    new (context->bytes) sha256_ctx{};
}

bool znc_sha256_starts(znc::ShaContext* context)
{
    nettle_sha256_init(of<sha256_ctx>(context));
    return true;
}

bool znc_sha256_update(znc::ShaContext* context, const unsigned char* data, std::size_t len)
{
    nettle_sha256_update(of<sha256_ctx>(context), len, data);
    return true;
}

bool znc_sha256_finish(znc::ShaContext* context, unsigned char* out)
{
    nettle_sha256_digest(of<sha256_ctx>(context), SHA256_DIGEST_SIZE, out);
    return true;
}

void znc_sha512_init(znc::ShaContext* context)
{
    new (context->bytes) sha512_ctx{};
}

bool znc_sha512_starts(znc::ShaContext* context)
{
    nettle_sha512_init(of<sha512_ctx>(context));
    return true;
}

bool znc_sha512_update(znc::ShaContext* context, const unsigned char* data, std::size_t len)
{
    nettle_sha512_update(of<sha512_ctx>(context), len, data);
    return true;
}

bool znc_sha512_finish(znc::ShaContext* context, unsigned char* out)
{
    nettle_sha512_digest(of<sha512_ctx>(context), SHA512_DIGEST_SIZE, out);
    return true;
}
