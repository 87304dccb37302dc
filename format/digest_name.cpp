#include "digest_name.hpp"

namespace znc {

bool is_digest(std::string_view text)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    constexpr std::size_t kPrefix = 7; // "sha256:"
    const std::size_t digits = text.starts_with("sha256:")   ? 64
                               : text.starts_with("sha512:") ? 128
                                                             : 0;
    return digits != 0 && text.size() == kPrefix + digits &&
           text.find_first_not_of(kDigits, kPrefix) == text.npos;
}

} // namespace znc
