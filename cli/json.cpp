#include "json.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <new>

namespace zncctl {
namespace {

struct TextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};

std::string position(std::string_view text, std::size_t at)
{
    const std::string_view before = text.substr(0, std::min(at, text.size()));
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const std::size_t start = before.rfind('\n') + 1; // npos wraps to 0
    return fmt::format("line {}, column {}", line, before.size() - start + 1);
}

void print(const cJSON* item, std::size_t depth, std::string& out)
{
    if (!cJSON_IsArray(item) && !cJSON_IsObject(item)) {
        out += compact(item);
        return;
    }
    const bool object = cJSON_IsObject(item) != 0;
    out += object ? '{' : '[';
    for (const cJSON* child = item->child; child != nullptr; child = child->next) {
        out += fmt::format("\n{:{}}", "", 2 * (depth + 1));
        if (object) {
            const Json key(cJSON_CreateString(child->string));
            out += compact(key.get()) + ": ";
        }
        print(child, depth + 1, out);
        out += child->next != nullptr ? "," : "";
    }
    if (item->child != nullptr)
        out += fmt::format("\n{:{}}", "", 2 * depth);
    out += object ? '}' : ']';
}

void add(cJSON* object, const char* key, cJSON* item)
{
    if (item == nullptr || cJSON_AddItemToObject(object, key, item) == 0)
        throw std::bad_alloc();
}

} // namespace

Json parse_json(std::string_view text, std::string* where)
{
    const std::string copy(text); // ended by NUL
    const char* end = copy.c_str();
    Json tree(cJSON_ParseWithOpts(copy.c_str(), &end, 1));
    if (tree == nullptr && where != nullptr)
        *where = position(text, static_cast<std::size_t>(end - copy.c_str()));
    return tree;
}

std::string pretty(const cJSON* item)
{
    std::string text;
    print(item, 0, text);
    return text + "\n";
}

std::string compact(const cJSON* item)
{
    const std::unique_ptr<char, TextDeleter> text(cJSON_PrintUnformatted(item));
    if (text == nullptr)
        throw std::bad_alloc();
    return text.get();
}

std::string text_of(const cJSON* object, const char* key)
{
    const char* text = cJSON_GetStringValue(member(object, key));
    return text != nullptr ? text : "";
}

void add_text(cJSON* object, const char* key, const std::string& text)
{
    add(object, key, cJSON_CreateString(text.c_str()));
}

void add_number(cJSON* object, const char* key, double number)
{
    add(object, key, cJSON_CreateNumber(number));
}

} // namespace zncctl
