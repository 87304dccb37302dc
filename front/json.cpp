#include "json.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <new>
#include <set>

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

std::string lower_case(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return result;
}

// Objects whose keys are data: there "Maintainer" is another key than "maintainer".
bool has_free_keys(std::string_view name)
{
    const std::string lower = lower_case(name);
    for (const std::string_view free : {"annotations", "labels", "exposedports", "volumes"})
        if (lower == free)
            return true;
    return false;
}

std::optional<std::string> find_duplicate_key(const cJSON* item, bool free_keys, bool repeat)
{
    std::set<std::string> seen;
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, item)
    {
        if (cJSON_IsObject(item) != 0 && !(free_keys && repeat)) {
            std::string lower = lower_case(child->string);
            const bool exact = free_keys && lower != kRefName; // which the library looks for
            if (!seen.insert(exact ? child->string : std::move(lower)).second)
                return child->string;
        }
        const bool free = cJSON_IsObject(item) != 0 && has_free_keys(child->string);
        if (auto key = find_duplicate_key(child, free, repeat))
            return key;
    }
    return std::nullopt;
}

void add(cJSON* object, const char* key, cJSON* item)
{
    if (item == nullptr || cJSON_AddItemToObject(object, key, item) == 0)
        throw std::bad_alloc();
}

} // namespace

Json parse_json(std::string_view text, std::string* where)
{
    const char* end = text.data();
    Json tree(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
    auto at = static_cast<std::size_t>(end - text.data());
    if (tree != nullptr) {
        at = text.find_first_not_of(" \t\r\n", at);
        if (at == text.npos)
            return tree;
        tree.reset(); // something stands behind the document
    }
    if (where != nullptr)
        *where = position(text, at);
    return tree;
}

std::optional<std::string> duplicate_key(const cJSON* item, bool annotations_may_repeat)
{
    return find_duplicate_key(item, false, annotations_may_repeat);
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
