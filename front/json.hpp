// json.hpp - JSON trees of the cJSON library as C++ values. Used by the commands that read or write
// documents.
#ifndef ZNC_FRONT_JSON_HPP
#define ZNC_FRONT_JSON_HPP

#include "format/names.hpp"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <cjson/cJSON.h>

namespace zncctl {

struct JsonDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// Null when the text is no JSON, or has something behind it. `where` then gets "line L, column C".
Json parse_json(std::string_view text, std::string* where = nullptr);

// A key that some object of a document has twice: readers differ in which one they take. The
// library's ignores case, so that "Digest" is "digest"; but for keys that are data (labels,
// annotations, ports, volumes). In a config.json annotations may repeat: the library writes one for
// each port of an image, and nothing depends on them. Nothing when there is none.
std::optional<std::string> duplicate_key(const cJSON* item, bool annotations_may_repeat = false);

// The annotation that names an image in an index.
using znc::kRefName;

// Indented by two blanks, with one blank behind each colon.
std::string pretty(const cJSON* item);

// In one line.
std::string compact(const cJSON* item);

inline const cJSON* member(const cJSON* object, const char* key)
{
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

// As the library finds members: whatever their case, the first counts. In a document without
// duplicate keys there is no other.
inline const cJSON* any_case_member(const cJSON* object, const char* key)
{
    return cJSON_GetObjectItem(object, key);
}

// "" when it is missing or no text.
std::string text_of(const cJSON* object, const char* key);

void add_text(cJSON* object, const char* key, const std::string& text);
void add_number(cJSON* object, const char* key, double number);

} // namespace zncctl

#endif
