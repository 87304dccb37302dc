#include "config_check.hpp"

#include "front/words.hpp"

#include <array>
#include <fmt/format.h>
#include <strings.h>

namespace zncctl {
namespace {

enum class Type { kText, kBoolean, kObject, kTexts, kTextMap, kObjects, kNumberText };

struct Rule {
    const char* path; // "[]" stands for every element
    Type type;
    bool required;
    bool used; // false: read and shown, but nothing comes of it
};

// The whole of what is read. A member of a known object that is not here is ignored.
constexpr std::array kRules = {
    Rule{"ociVersion", Type::kText, true, true},
    Rule{"hostname", Type::kText, false, false},
    Rule{"annotations", Type::kTextMap, false, true},
    Rule{"process", Type::kObject, true, true},
    Rule{"process.args", Type::kTexts, true, true},
    Rule{"process.env", Type::kTexts, false, true},
    Rule{"process.cwd", Type::kText, true, true},
    Rule{"process.terminal", Type::kBoolean, false, false},
    Rule{"root", Type::kObject, true, true},
    Rule{"root.path", Type::kText, true, true},
    Rule{"root.readonly", Type::kBoolean, false, false},
    Rule{"mounts", Type::kObjects, false, true},
    Rule{"mounts[].source", Type::kText, false, true},
    Rule{"mounts[].destination", Type::kText, false, true},
    Rule{"mounts[].type", Type::kText, false, true},
    Rule{"mounts[].options", Type::kTexts, false, true},
    Rule{"hooks", Type::kObject, false, false},
    Rule{"zarnel", Type::kObject, false, true},
    Rule{"zarnel.rtp", Type::kObject, false, true},
    Rule{"zarnel.rtp.rtpOptions", Type::kNumberText, false, true},
    Rule{"zarnel.rtp.rtpPriority", Type::kNumberText, false, true},
    Rule{"zarnel.rtp.rtpStackSize", Type::kNumberText, false, true},
    Rule{"zarnel.rtp.rtpTaskOptions", Type::kNumberText, false, true},
};

const char* name_of(Type type)
{
    switch (type) {
    case Type::kText:
        return "a string";
    case Type::kBoolean:
        return "true or false";
    case Type::kObject:
        return "an object";
    case Type::kTexts:
        return "an array of strings";
    case Type::kTextMap:
        return "an object of strings";
    case Type::kObjects:
        return "an array of objects";
    case Type::kNumberText:
        return "a string that holds a number";
    }
    return "";
}

const char* kind_of(const cJSON* item)
{
    return item == nullptr        ? "nothing"
           : cJSON_IsString(item) ? "a string"
           : cJSON_IsNumber(item) ? "a number"
           : cJSON_IsBool(item)   ? "a boolean"
           : cJSON_IsArray(item)  ? "an array"
           : cJSON_IsObject(item) ? "an object"
                                  : "null";
}

bool is_number_text(const cJSON* item)
{
    if (!cJSON_IsString(item) || item->valuestring[0] == '\0')
        return false;
    char* end = nullptr;
    static_cast<void>(std::strtoul(item->valuestring, &end, 0));
    return *end == '\0';
}

bool has_type(const cJSON* item, Type type)
{
    switch (type) {
    case Type::kText:
        return cJSON_IsString(item) != 0;
    case Type::kBoolean:
        return cJSON_IsBool(item) != 0;
    case Type::kObject:
    case Type::kTextMap:
        return cJSON_IsObject(item) != 0;
    case Type::kTexts:
    case Type::kObjects:
        return cJSON_IsArray(item) != 0;
    case Type::kNumberText:
        return is_number_text(item);
    }
    return false;
}

class ConfigCheck {
  public:
    std::vector<ConfigFinding> run(const cJSON* document)
    {
        if (!cJSON_IsObject(document)) {
            findings_.push_back({true, ".", "an object", kind_of(document)});
            return std::move(findings_);
        }
        if (const auto key = duplicate_key(document, true))
            findings_.push_back({true, *key, "one such key", "two"});
        object(document, "", "");
        return std::move(findings_);
    }

  private:
    // `rule_path` is the path with "[]" for every index.
    void object(const cJSON* item, const std::string& path, const std::string& rule_path)
    {
        const std::string prefix = rule_path.empty() ? "" : rule_path + ".";
        for (const Rule& rule : kRules) {
            const std::string_view rest(rule.path);
            if (rest.starts_with(prefix) && rest.find_first_of(".[", prefix.size()) == rest.npos)
                known(item, rule, path, std::string(rest.substr(prefix.size())));
        }
        for (const cJSON* child = item->child; child != nullptr; child = child->next)
            if (!has_rule(prefix + child->string))
                findings_.push_back({false, join(path, child->string), "", kind_of(child)});
    }

    // Members are found whatever the case of their names.
    static bool has_rule(const std::string& path)
    {
        for (const Rule& rule : kRules)
            if (::strcasecmp(rule.path, path.c_str()) == 0)
                return true;
        return false;
    }

    static std::string join(const std::string& path, const std::string& name)
    {
        return path.empty() ? name : path + "." + name;
    }

    void known(const cJSON* parent, const Rule& rule, const std::string& path,
               const std::string& name)
    {
        const cJSON* item = cJSON_GetObjectItem(parent, name.c_str());
        const std::string where = join(path, name);
        if (item == nullptr) {
            if (rule.required)
                findings_.push_back({true, where, name_of(rule.type), "nothing"});
            return;
        }
        if (!has_type(item, rule.type)) {
            findings_.push_back({rule.required, where, name_of(rule.type), kind_of(item)});
            return;
        }
        value(rule.path, where, item);
        if (!rule.used)
            findings_.push_back({false, where, "", "no effect here"});
        if (rule.type == Type::kObject && rule.used)
            object(item, where, rule.path);
        else
            elements(item, rule, where);
    }

    void elements(const cJSON* item, const Rule& rule, const std::string& where)
    {
        int i = 0;
        for (const cJSON* child = item->child; child != nullptr; child = child->next, i++) {
            const std::string at = rule.type == Type::kTextMap ? join(where, child->string)
                                                               : fmt::format("{}[{}]", where, i);
            if (rule.type == Type::kTextMap && !cJSON_IsString(child))
                findings_.push_back({false, at, "a string", kind_of(child)});
            else if (rule.type == Type::kTexts && !cJSON_IsString(child))
                findings_.push_back({true, at, "a string", kind_of(child), true});
            else if (rule.type == Type::kObjects && !cJSON_IsObject(child))
                findings_.push_back({true, at, "an object", kind_of(child), true});
            else if (rule.type == Type::kObjects)
                object(child, at, std::string(rule.path) + "[]");
        }
    }

    // What create says about values.
    void value(std::string_view rule, const std::string& where, const cJSON* item)
    {
        const auto refuse = [&](const char* expected) {
            findings_.push_back({true, where, expected,
                                 cJSON_IsString(item) ? fmt::format("\"{}\"", item->valuestring)
                                                      : std::string("an empty array")});
        };
        const std::string_view text = cJSON_IsString(item) ? item->valuestring : "";
        if (rule == "ociVersion" && (text.empty() || text.size() > 63))
            refuse("a version of 1 to 63 characters");
        if (rule == "root.path" && text.empty())
            refuse("a path");
        if (rule == "process.cwd" && !text.starts_with('/') && !text.starts_with('\\'))
            refuse("an absolute path");
        if (rule == "process.args") {
            const char* first = cJSON_GetStringValue(cJSON_GetArrayItem(item, 0));
            if (first == nullptr || *first == '\0')
                refuse("a program as the first argument");
        }
    }

    std::vector<ConfigFinding> findings_;
};

} // namespace

std::vector<ConfigFinding> check_config(const cJSON* document)
{
    return ConfigCheck().run(document);
}

std::string ambiguity(const cJSON* document)
{
    if (const auto key = duplicate_key(document, true))
        return fmt::format("the key \"{}\" is there twice", *key);
    for (const ConfigFinding& finding : check_config(document))
        if (finding.in_list)
            return fmt::format("{}: expected {}, found {}", finding.path, finding.expected,
                               finding.found);
    return "";
}

} // namespace zncctl
