// escape.hpp - text of foreign origin made safe to show: names, tags, ids and commands may hold any
// byte, and a terminal or a log must not obey them. Used wherever such text is printed; what a
// container's program prints is passed on as it is.
#ifndef ZNC_FRONT_ESCAPE_HPP
#define ZNC_FRONT_ESCAPE_HPP

#include <string>
#include <string_view>

namespace zncctl {

// With "?" for every control character (C0, DEL, C1), bidirectional control, line or paragraph
// separator, and for every byte that is not UTF-8. One line.
std::string printable(std::string_view text);

// The same for text of several lines: line ends and tabs stay.
std::string printable_lines(std::string_view text);

// JSON text with the same characters written as \uXXXX, which means the same, and U+FFFD for bytes
// that are not UTF-8.
std::string printable_json(std::string_view json);

// Bytes that may be no UTF-8, such as the name of a file, as UTF-8: what is none reads "\xNN".
std::string utf8(std::string_view bytes);

// How many characters a text in UTF-8 has.
std::size_t character_count(std::string_view text);

// Its first characters.
std::string_view first_characters(std::string_view text, std::size_t count);

} // namespace zncctl

#endif
