// words.hpp - text helpers shared by several commands.
#ifndef ZNC_FRONT_WORDS_HPP
#define ZNC_FRONT_WORDS_HPP

#include <algorithm>
#include <charconv>
#include <numeric>
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

// The parts of a text between these characters; one part if there is none.
inline std::vector<std::string> split(std::string_view text, char at)
{
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = std::min(text.find(at), text.size());
        parts.emplace_back(text.substr(0, end));
        if (end == text.size())
            return parts;
        text.remove_prefix(end + 1);
    }
}

// Whether a list of texts contains this one.
inline bool is_among(std::string_view text, const auto& list)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

// The number of characters to insert, remove, replace or swap with their neighbour to turn one word
// into the other.
inline std::size_t edit_distance(std::string_view from, std::string_view to)
{
    std::vector<std::size_t> before;
    std::vector<std::size_t> last(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); i++) {
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); j++) {
            const std::size_t replaced = last[j] + (from[i] == to[j] ? 0 : 1);
            row[j + 1] = std::min({replaced, last[j + 1] + 1, row[j] + 1});
            if (i > 0 && j > 0 && from[i] == to[j - 1] && from[i - 1] == to[j])
                row[j + 1] = std::min(row[j + 1], before[j - 1] + 1);
        }
        before = last;
        last = row;
    }
    return last[to.size()];
}

// The word that was probably meant, "" if none is similar. Long words have no similar ones.
inline std::string closest_word(std::string_view word, const std::vector<std::string>& words)
{
    constexpr std::size_t kLong = 40;
    std::size_t least = word.size() / 3 + 1;
    std::string closest;
    if (word.size() <= kLong)
        for (const std::string& candidate : words)
            if (const std::size_t distance = edit_distance(word, candidate); distance < least) {
                least = distance;
                closest = candidate;
            }
    return closest;
}

// Parses a string that consists of a number only.
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
