#include "settings_json.hpp"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace zn {
namespace {

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;
constexpr std::size_t kDepthMax = 16; // of the objects that are read

char lower(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool is_control(char letter)
{
    return (static_cast<unsigned char>(letter) < 0x20 && letter != '\t') || letter == 0x7f;
}

// Writes into a fixed buffer; what does not fit is cut.
class Line {
  public:
    template <std::size_t kSize>
    explicit Line(char (&buffer)[kSize]) : at_(buffer), end_(buffer + kSize - 1)
    {
        *at_ = '\0';
    }
    // Bytes that a terminal or a log could interpret are replaced.
    void add(const char* text)
    {
        for (; *text != '\0' && at_ < end_; text++)
            *at_++ = *text == '\t' || is_control(*text) ? '?' : *text;
        *at_ = '\0';
    }
    void add_index(std::size_t index)
    {
        char text[32];
        (void)std::snprintf(text, sizeof text, "[%zu]", index);
        add(text);
    }

  private:
    char* at_;
    char* end_;
};

bool is_whole(double value)
{
    constexpr double kAllAreWhole = 9007199254740992.0; // 2^53: no larger number has a fraction
    return std::isfinite(value) && (std::fabs(value) >= kAllAreWhole ||
                                    static_cast<double>(static_cast<std::int64_t>(value)) == value);
}

bool is_unlimited(const cJSON* value)
{
    return cJSON_IsNumber(value) != 0 && value->valuedouble >= kTwo63 &&
           value->valuedouble <= kTwo64;
}

bool in_range(const cJSON* value, std::int64_t least, std::int64_t most)
{
    return cJSON_IsNumber(value) != 0 && is_whole(value->valuedouble) &&
           value->valuedouble >= static_cast<double>(least) &&
           value->valuedouble <= static_cast<double>(most);
}

bool has_component(std::string_view path, bool dotCounts)
{
    while (!path.empty()) {
        const std::size_t len = path.find('/');
        const std::string_view component = path.substr(0, len);
        if (component == ".." || (dotCounts && component == "."))
            return true;
        path.remove_prefix(len == std::string_view::npos ? path.size() : len + 1);
    }
    return false;
}

} // namespace

bool JsonReader::report(const Node& at, int error)
{
    error_ = error;
    const Node* places[kDepthMax];
    std::size_t depth = 0;
    for (const Node* node = &at; node != nullptr && depth < kDepthMax; node = node->above)
        places[depth++] = node;
    Line field(fault_.field);
    bool first = true;
    while (depth > 0) {
        const Node& node = *places[--depth];
        if (node.name != nullptr) {
            field.add(first ? "" : ".");
            field.add(node.name);
        } else if (node.above != nullptr) {
            field.add_index(node.index);
        }
        first = first && node.name == nullptr;
    }
    if (first)
        field.add("config.json");
    return false;
}

bool JsonReader::refuse(const Node& at, const char* reason, ...)
{
    if (error_ != 0)
        return false;
    va_list values;
    va_start(values, reason);
    (void)std::vsnprintf(fault_.reason, sizeof fault_.reason, reason, values);
    va_end(values);
    return report(at, EINVAL);
}

bool JsonReader::refuse_text(const Node& at, const char* reason)
{
    if (error_ != 0)
        return false;
    char shown[64];
    Line(shown).add(cJSON_IsString(at.value) != 0 ? at.value->valuestring : "");
    return refuse(at, "%s \"%s\"", reason, shown);
}

bool JsonReader::unsupported(const Node& at, const char* reason)
{
    if (error_ != 0)
        return false;
    Line(fault_.reason).add(reason);
    return report(at, ENOTSUP);
}

bool JsonReader::no_memory(const Node& at)
{
    if (error_ != 0)
        return false;
    Line(fault_.reason).add("no memory");
    return report(at, ENOMEM);
}

bool JsonReader::boolean(const Node& at, bool& value)
{
    if (cJSON_IsBool(at.value) == 0)
        return refuse(at, "not true or false");
    value = cJSON_IsTrue(at.value) != 0;
    return true;
}

bool JsonReader::integer(const Node& at, std::int64_t least, std::int64_t most, std::int64_t& value)
{
    if (!in_range(at.value, least, most))
        return refuse(at, "not a whole number from %lld to %lld", static_cast<long long>(least),
                      static_cast<long long>(most));
    value = static_cast<std::int64_t>(at.value->valuedouble);
    return true;
}

bool JsonReader::limit(const Node& at, std::int64_t least, std::int64_t most, std::int64_t& value)
{
    if (is_unlimited(at.value) || in_range(at.value, -1, -1)) {
        value = -1;
        return true;
    }
    if (!in_range(at.value, least, most))
        return refuse(at, "not -1 (unlimited) or a whole number from %lld to %lld",
                      static_cast<long long>(least), static_cast<long long>(most));
    value = static_cast<std::int64_t>(at.value->valuedouble);
    return true;
}

bool JsonReader::unsigned_limit(const Node& at, std::uint64_t& value)
{
    std::int64_t number = 0;
    if (is_unlimited(at.value)) {
        value = UINT64_MAX;
        return true;
    }
    if (!integer(at, 0, kExactMax, number))
        return false;
    value = static_cast<std::uint64_t>(number);
    return true;
}

bool JsonReader::text(const Node& at, Text& value)
{
    if (cJSON_IsString(at.value) == 0)
        return refuse(at, "not a string");
    const std::string_view text = at.value->valuestring;
    if (text.size() > kTextMax)
        return refuse(at, "longer than %zu bytes", kTextMax);
    for (const char letter : text)
        if (is_control(letter))
            return refuse(at, "contains a control character");
    value.reset();
    if (text.empty())
        return true;
    value = znc::copy_text(text);
    return value != nullptr || no_memory(at);
}

bool JsonReader::required_text(const Node& at, Text& value)
{
    return text(at, value) && (value != nullptr || refuse(at, "is empty"));
}

bool JsonReader::absolute_path(const Node& at, Text& value)
{
    if (!required_text(at, value))
        return false;
    const std::string_view path = value.get();
    return (path[0] == '/' && !has_parent_component(path)) ||
           refuse(at, "not an absolute path without \"..\"");
}

bool JsonReader::is_array(const Node& at)
{
    return cJSON_IsArray(at.value) != 0 || refuse(at, "not an array");
}

bool JsonReader::is_object(const Node& at)
{
    if (cJSON_IsObject(at.value) == 0)
        return refuse(at, "not an object");
    std::size_t count = 0;
    for (const cJSON* one = at.value->child; one != nullptr; one = one->next) {
        if (++count > kMembersMax)
            return refuse(at, "has more than %zu members", kMembersMax);
        for (const cJSON* other = at.value->child; other != one; other = other->next)
            if (equal_ignoring_case(one->string, other->string))
                return refuse(Node{one, &at, one->string}, "occurs twice");
    }
    return true;
}

bool is_empty(const cJSON* value)
{
    if (cJSON_IsString(value) != 0)
        return value->valuestring[0] == '\0';
    return (cJSON_IsArray(value) != 0 || cJSON_IsObject(value) != 0) && value->child == nullptr;
}

const cJSON* member_of(const Node& object, const char* name)
{
    const cJSON* value = object.value->child;
    while (value != nullptr && std::string_view(value->string) != name)
        value = value->next;
    return value == nullptr || cJSON_IsNull(value) != 0 ? nullptr : value;
}

bool has_parent_component(std::string_view path)
{
    return has_component(path, false);
}

bool has_dot_component(std::string_view path)
{
    return has_component(path, true);
}

bool equal_ignoring_case(const char* one, const char* other)
{
    while (*one != '\0' && lower(*one) == lower(*other)) {
        one++;
        other++;
    }
    return lower(*one) == lower(*other);
}

bool read_required_text(JsonReader& reader, const Node& at, Text& value)
{
    return reader.required_text(at, value);
}

bool read_absolute_path(JsonReader& reader, const Node& at, Text& value)
{
    return reader.absolute_path(at, value);
}

} // namespace zn
