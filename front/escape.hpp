// escape.hpp - makes untrusted text safe to print: names, tags, ids and commands may contain any
// byte, which must not act as a control sequence in a terminal or log. Used wherever such text is
// printed. The output of a container's program is passed on unchanged.
#ifndef ZNC_FRONT_ESCAPE_HPP
#define ZNC_FRONT_ESCAPE_HPP

#include <string>
#include <string_view>

namespace zncctl {

// Replaces every control character (C0, DEL, C1), bidirectional control, line or paragraph
// separator, and every byte that is not valid UTF-8, with "?". The result is one line.
std::string printable(std::string_view text);

// The same for text of several lines: newlines and tabs are kept.
std::string printable_lines(std::string_view text);

// Writes the same characters in JSON text as \uXXXX, which does not change its meaning, and invalid
// bytes as U+FFFD.
std::string printable_json(std::string_view json);

bool is_utf8(std::string_view text);

// Whether a text has characters that printable() replaces.
inline bool has_controls(std::string_view text)
{
    return printable(text) != text;
}

// Converts bytes that may not be UTF-8, such as a file name, to UTF-8: invalid bytes become "\xNN".
std::string utf8(std::string_view bytes);

// The number of characters in a UTF-8 text.
std::size_t character_count(std::string_view text);

// The first `count` characters of a text.
std::string_view first_characters(std::string_view text, std::size_t count);

} // namespace zncctl

#endif
