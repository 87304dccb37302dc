// json.hpp - strict parsing of untrusted JSON, and output of JSON. Everything that a program of
// ours decides on comes through parse_json, which refuses what readers understand differently. Used
// by the front ends; the library reads with cJSON. A source that looks into a value includes
// <nlohmann/json.hpp> itself.
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
    std::size_t bytes = std::size_t{64} << 20U; // the library reads no longer files
    std::size_t depth = 200; // of objects and arrays: writing a document takes stack for each
};

// Details about a parsed text.
struct JsonNotes {
    std::string problem; // why it is refused, with the place or the key; "" if it is not
    std::optional<std::string> duplicate_key; // which is why
    bool inexact = false;                     // a number has more digits than are kept
};

enum class Annotations { kUnique, kMayRepeat };

// Nullopt if the text is not exactly one JSON value, contains a duplicate key, a NUL in a string or
// a number too large for a double, or exceeds the limits. Integers of 64 bits are exact; a number
// without a fraction is an integer, however it is written.
//
// Readers differ in which of two members they take that have the same key. The library's ignores
// case, so that "Digest" is "digest"; but for keys that are data (labels, annotations, ports,
// volumes). In a config.json annotations may repeat: the library writes one for each port of an
// image, and nothing depends on them.
std::optional<Json> parse_json(std::string_view text, JsonNotes* notes = nullptr,
                               Annotations annotations = Annotations::kUnique,
                               const JsonLimits& limits = {});

// The annotation that names an image in an index.
using znc::kRefName;

// Indented by two blanks, with one blank behind each colon and a line end at the end.
std::string pretty(const Json& json);

// In one line. What is no UTF-8 becomes U+FFFD in both.
std::string compact(const Json& json);

// The member; null if it is missing or `object` is null or not an object.
const Json* member(const Json* object, std::string_view key);
inline const Json* member(const Json& object, std::string_view key)
{
    return member(&object, key);
}

// As the library finds members: whatever their case. In a document without duplicate keys there is
// only one such.
const Json* any_case_member(const Json* object, std::string_view key);
inline const Json* any_case_member(const Json& object, std::string_view key)
{
    return any_case_member(&object, key);
}

// The elements of an array, or the values of an object, to go over; none of anything else.
const Json& children(const Json* json);

bool is_array(const Json* json);
bool is_object(const Json* json);

// Null if it is not a string.
const std::string* text(const Json* json);

// The texts among the elements of an array; none of anything else.
std::vector<std::string> texts_of(const Json* array);

// Nullopt if it is not an integer that fits into int64_t.
std::optional<std::int64_t> integer(const Json* json);

// "" when it is missing or no text.
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
