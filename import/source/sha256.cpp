#include "sha256.hpp"

#include <array>
#include <cstdint>
#include <fmt/format.h>

namespace zncimport {

void Sha256::add(std::span<const std::byte> bytes)
{
    nettle_sha256_update(&context_, bytes.size(),
                         reinterpret_cast<const std::uint8_t*>(bytes.data()));
}

std::string Sha256::text()
{
    std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
    nettle_sha256_digest(&context_, digest.size(), digest.data());
    return fmt::format("sha256:{:02x}", fmt::join(digest, ""));
}

} // namespace zncimport
