// words.hpp - text helpers shared by several commands.
#ifndef ZNC_FRONT_WORDS_HPP
#define ZNC_FRONT_WORDS_HPP

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

// Splits a text at single blanks.
inline std::vector<std::string> split_words(std::string_view text)
{
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(' '), text.size());
        words.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return words;
}

// Parses a text that consists of a number only.
template <class Number> std::optional<Number> to_number(std::string_view text)
{
    Number number = 0;
    // cppcheck-suppress invalidLifetime // the text lives as long as the call
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

} // namespace zncctl

#endif
