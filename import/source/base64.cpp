#include "base64.hpp"

#include <cstdint>

namespace zncimport {

std::optional<std::string> decode_base64(std::string_view text)
{
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    constexpr std::size_t kGroup = 4;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    if (text.size() % kGroup != 0)
        return std::nullopt;
    std::string bytes;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < text.size() - padding; i++) {
        const std::size_t digit = kAlphabet.find(text[i]);
        if (digit == kAlphabet.npos)
            return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        // After the first character of a group no byte is complete; each further character
        // completes one.
        if (const std::size_t at = i % kGroup; at != 0)
            bytes += static_cast<char>(bits >> (6 - 2 * at) & 0xff);
    }
    return bytes;
}

} // namespace zncimport
