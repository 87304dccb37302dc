#include "escape.hpp"

#include <array>
#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr char32_t kInvalid = 0xffffffff; // not a valid character

struct Character {
    char32_t code = kInvalid;
    std::size_t bytes = 1;
};

// Decodes the first character of a text that is not empty. Overlong forms and surrogates are
// invalid.
Character first_character(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < bytes)
        return {};
    char32_t code = lead & (0xffU >> (bytes + 1));
    for (std::size_t i = 1; i < bytes; i++) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0U) != 0x80)
            return {};
        code = (code << 6U) | (next & 0x3fU);
    }
    constexpr std::array<char32_t, 5> kMinCode = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < kMinCode[bytes] || code > 0x10ffff || surrogate)
        return {};
    return {code, bytes};
}

struct Range {
    char32_t first;
    char32_t last;
};

// Control characters, and characters that change the order or the line breaks of the text around
// them.
constexpr std::array kUnsafe = {
    Range{0, 0x1f},        Range{0x7f, 0x9f},     Range{0x61c, 0x61c},
    Range{0x200e, 0x200f}, Range{0x2028, 0x202e}, Range{0x2066, 0x206f},
    Range{0xfeff, 0xfeff}, Range{0xfff9, 0xfffb}, Range{0xe0000, 0xe007f},
};

bool is_unsafe(char32_t code)
{
    if (code == kInvalid)
        return true;
    for (const Range& range : kUnsafe)
        if (code >= range.first && code <= range.last)
            return true;
    return false;
}

// Copies a text; `replace` is called to append the replacement for an unsafe character.
template <class Replace> std::string copy(std::string_view text, Replace replace)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = first_character(text);
        if (is_unsafe(character.code))
            replace(character.code, result);
        else
            result += text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return result;
}

} // namespace

std::string printable(std::string_view text)
{
    return copy(text, [](char32_t, std::string& out) { out += '?'; });
}

std::string printable_lines(std::string_view text)
{
    return copy(text, [](char32_t code, std::string& out) {
        out += code == '\n' || code == '\t' ? static_cast<char>(code) : '?';
    });
}

std::string printable_json(std::string_view json)
{
    return copy(json, [](char32_t code, std::string& out) {
        constexpr char32_t kReplacement = 0xfffd;
        constexpr auto number = [](char32_t c) { return static_cast<unsigned>(c); };
        // white space between members: strings do not contain these characters
        if (code == '\n' || code == '\t' || code == '\r')
            out += static_cast<char>(code);
        else if (code == kInvalid)
            out += fmt::format("\\u{:04x}", number(kReplacement));
        else if (code > 0xffff)
            out += fmt::format("\\u{:04x}\\u{:04x}", 0xd7c0 + (number(code) >> 10U),
                               0xdc00 + (number(code) & 0x3ffU));
        else
            out += fmt::format("\\u{:04x}", number(code));
    });
}

std::string utf8(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const Character character = first_character(bytes);
        if (character.code == kInvalid)
            text += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[0]));
        else
            text += bytes.substr(0, character.bytes);
        bytes.remove_prefix(character.bytes);
    }
    return text;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const Character character = first_character(text);
        if (character.code == kInvalid)
            return false;
        text.remove_prefix(character.bytes);
    }
    return true;
}

std::size_t character_count(std::string_view text)
{
    std::size_t count = 0;
    for (; !text.empty(); count++)
        text.remove_prefix(first_character(text).bytes);
    return count;
}

std::string_view first_characters(std::string_view text, std::size_t count)
{
    std::size_t end = 0;
    for (; count > 0 && end < text.size(); count--)
        end += first_character(text.substr(end)).bytes;
    return text.substr(0, end);
}

} // namespace zncctl
