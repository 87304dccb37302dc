// json.hpp - strict parsing of untrusted JSON, and output of JSON. All documents on which the
// programs base decisions are parsed by parse_json, which refuses documents that parsers interpret
// differently. Used by the programs; the library uses cJSON. A source file that accesses values
// includes <nlohmann/json.hpp> itself.
#ifndef ZNC_FRONT_JSON_HPP
#define ZNC_FRONT_JSON_HPP

#include "format/names.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace zncctl {

// Members keep the order in which they are read or put in.
using Json = nlohmann::ordered_json;

struct JsonLimits {
    std::size_t bytes = std::size_t{64} << 20U; // as the library's limit for files
    std::size_t depth = 200; // nested objects and arrays; output of a document is recursive
};

// Details about a parsed text.
struct JsonNotes {
    std::string problem; // why it is refused, with the position or the key; "" if it is not
    std::optional<std::string> duplicate_key; // set if it is refused because of this key
    bool inexact = false;                     // a number has more digits than a double keeps
};

enum class Annotations { kUnique, kMayRepeat };

// Nullopt if the text is not exactly one JSON value, contains a duplicate key, a NUL in a string or
// a number too large for a double, or exceeds the limits. Integers of 64 bits are exact; a number
// without a fraction is an integer, however it is written.
//
// If two members have the same key, parsers differ in which one they use. Keys are compared
// case-insensitively, as by the library ("Digest" equals "digest"), except for keys that are data
// (labels, annotations, ports, volumes). In a config.json, annotations may repeat: the library
// writes one for each port of an image, and nothing depends on them.
std::optional<Json> parse_json(std::string_view text, JsonNotes* notes = nullptr,
                               Annotations annotations = Annotations::kUnique,
                               const JsonLimits& limits = {});

// The annotation that names an image in an index.
using znc::kRefName;

// The document, indented by two spaces, with a newline at the end.
std::string pretty(const Json& json);

// The document on one line. In both forms, invalid UTF-8 becomes U+FFFD.
std::string compact(const Json& json);

// The member; null if it is missing or `object` is null or not an object.
const Json* member(const Json* object, std::string_view key);
inline const Json* member(const Json& object, std::string_view key)
{
    return member(&object, key);
}

// Finds a member as the library does, ignoring case. In a document without duplicate keys at most
// one matches.
const Json* any_case_member(const Json* object, std::string_view key);
inline const Json* any_case_member(const Json& object, std::string_view key)
{
    return any_case_member(&object, key);
}

// The elements of an array or the values of an object, for iteration; empty for other values.
const Json& children(const Json* json);

bool is_array(const Json* json);
bool is_object(const Json* json);

// The value of a string; null for other values.
const std::string* text(const Json* json);

// The strings among the elements of an array; empty for other values.
std::vector<std::string> texts_of(const Json* array);

// Nullopt if it is not an integer that fits into int64_t.
std::optional<std::int64_t> integer(const Json* json);

// The string member `key`; "" if it is missing or not a string.
std::string text_of(const Json* object, std::string_view key);
inline std::string text_of(const Json& object, std::string_view key)
{
    return text_of(&object, key);
}

// Appends a member without searching for a duplicate key, because untrusted objects can have a
// million members.
Json& append(Json& object, std::string_view key, Json value);

} // namespace zncctl

#endif
