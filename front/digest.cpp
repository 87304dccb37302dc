#include "digest.hpp"

#include "files.hpp"

#include "base/owned.hpp"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace zncctl {

std::string digest_of(std::string_view algorithm, std::string_view bytes)
{
    Digest digest(algorithm);
    digest.add(bytes.data(), bytes.size());
    return digest.text();
}

Digest::Digest(std::string_view algorithm) : algorithm_(algorithm)
{
    mbedtls_md_init(&context_);
    const mbedtls_md_type_t type = algorithm == "sha256"   ? MBEDTLS_MD_SHA256
                                   : algorithm == "sha512" ? MBEDTLS_MD_SHA512
                                                           : MBEDTLS_MD_NONE;
    const mbedtls_md_info_t* info = mbedtls_md_info_from_type(type);
    valid_ = info != nullptr && mbedtls_md_setup(&context_, info, 0) == 0 &&
             mbedtls_md_starts(&context_) == 0;
}

Digest::~Digest()
{
    mbedtls_md_free(&context_);
}

void Digest::add(const void* bytes, std::size_t count)
{
    if (valid_)
        mbedtls_md_update(&context_, static_cast<const unsigned char*>(bytes), count);
}

std::string Digest::text()
{
    std::array<unsigned char, MBEDTLS_MD_MAX_SIZE> sum{};
    if (!valid_ || mbedtls_md_finish(&context_, sum.data()) != 0)
        return "";
    const std::size_t size = algorithm_ == "sha256" ? 32 : 64;
    std::string result = algorithm_ + ":";
    for (std::size_t i = 0; i < size; i++)
        result += fmt::format("{:02x}", sum[i]);
    return result;
}

std::string size_problem(int blob, const std::string& digest, double size)
{
    struct stat st = {};
    if (::fstat(blob, &st) != 0)
        return fmt::format("blob {}: {}", digest, error_text());
    if (size < 0)
        return fmt::format("the size of blob {} is not said", digest);
    if (static_cast<double>(st.st_size) == size)
        return "";
    return fmt::format("blob {} has {} bytes, not {:.0f}", digest, st.st_size, size);
}

} // namespace zncctl
