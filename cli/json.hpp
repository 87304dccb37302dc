// json.hpp - JSON trees of the cJSON library as C++ values. Used by the commands that read or write
// documents.
#ifndef ZNCCTL_JSON_HPP
#define ZNCCTL_JSON_HPP

#include <memory>
#include <string>
#include <string_view>

#include <cjson/cJSON.h>

namespace zncctl {

struct JsonDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// Null when the text is no JSON. `where` then gets "line L, column C".
Json parse_json(std::string_view text, std::string* where = nullptr);

// Indented by two blanks, with one blank behind each colon.
std::string pretty(const cJSON* item);

// In one line.
std::string compact(const cJSON* item);

inline const cJSON* member(const cJSON* object, const char* key)
{
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

// "" when it is missing or no text.
std::string text_of(const cJSON* object, const char* key);

void add_text(cJSON* object, const char* key, const std::string& text);
void add_number(cJSON* object, const char* key, double number);

} // namespace zncctl

#endif
