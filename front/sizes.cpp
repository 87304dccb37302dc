#include "sizes.hpp"

#include "words.hpp"

#include <algorithm>
#include <limits>

namespace zncctl {

std::optional<std::int64_t> to_bytes(std::string_view text)
{
    constexpr std::string_view kUnits = "bkmgt";
    constexpr std::string_view kUpperUnits = "BKMGT";
    unsigned shift = 0;
    if (!text.empty()) {
        const std::size_t unit = std::min(kUnits.find(text.back()), kUpperUnits.find(text.back()));
        if (unit != text.npos) {
            shift = static_cast<unsigned>(unit) * 10;
            text.remove_suffix(1);
        }
    }
    const auto number = to_number<std::int64_t>(text);
    if (!number || *number < 0 || *number > (std::numeric_limits<std::int64_t>::max() >> shift))
        return std::nullopt;
    return *number << shift;
}

} // namespace zncctl
