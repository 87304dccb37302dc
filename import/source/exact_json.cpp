#include "exact_json.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

namespace zncimport {
namespace {

// Returns whether a double represents the number exactly.
bool is_exact(const std::string& number)
{
    constexpr auto kExactDigits = 15;
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    return std::count_if(number.begin(), number.end(), is_digit) <= kExactDigits &&
           std::isfinite(std::strtod(number.c_str(), nullptr));
}

// Returns the position after the string literal that begins at `start`.
std::size_t end_of_text(std::string_view json, std::size_t start)
{
    std::size_t i = start + 1;
    while (i < json.size() && json[i] != '"')
        i += json[i] == '\\' ? 2 : 1;
    return i + 1;
}

// Returns whether a string literal contains an escaped NUL.
bool holds_nul(std::string_view text)
{
    for (std::size_t i = text.find('\\'); i != text.npos; i = text.find('\\', i + 2))
        if (text.substr(i + 1, 5) == "u0000")
            return true;
    return false;
}

} // namespace

bool survives(std::string_view json)
{
    constexpr std::string_view kNumber = "0123456789+-.eE";
    for (std::size_t i = 0; (i = json.find_first_of("\"-0123456789", i)) != json.npos;) {
        if (json[i] == '"') {
            const std::size_t start = i;
            i = end_of_text(json, i);
            if (holds_nul(json.substr(start, i - start)))
                return false;
            continue;
        }
        const std::size_t end = std::min(json.find_first_not_of(kNumber, i), json.size());
        if (!is_exact(std::string(json.substr(i, end - i))))
            return false;
        i = end;
    }
    return true;
}

} // namespace zncimport
