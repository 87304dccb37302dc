// zncRuntimeSpec_check.cpp - reports, member by member, how creating a container would treat a
// "config.json".
#include "base/failure.hpp"
#include "zncRuntimeSpec_members.hpp"

#include "cJSON_Additions.h"
#include "zarnel/ns.h"
#include "zncOwned.hpp"

#include <cstdio>
#include <cstdlib>
#include <strings.h>

namespace {

using znc::Need;
using znc::SpecMember;

// A member, or an element of an array, and its path from the root.
struct Place {
    const Place* above; // null: the root
    const char* name;   // null: an element
    int index;
};

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

// The JSON type of a value of this type.
ZNC_CONFIG_TYPE plain_type(ZNC_CONFIG_TYPE type)
{
    switch (type) {
    case ZNC_CONFIG_VERSION:
    case ZNC_CONFIG_PATH:
    case ZNC_CONFIG_ABSOLUTE_PATH:
        return ZNC_CONFIG_STRING;
    case ZNC_CONFIG_PROGRAM:
        return ZNC_CONFIG_STRINGS;
    default:
        return type;
    }
}

bool has_type(const cJSON* item, ZNC_CONFIG_TYPE type)
{
    switch (plain_type(type)) {
    case ZNC_CONFIG_STRING:
    case ZNC_CONFIG_NUMBER_STRING:
        return cJSON_IsString(item) != 0;
    case ZNC_CONFIG_BOOLEAN:
        return cJSON_IsBool(item) != 0;
    case ZNC_CONFIG_OBJECT:
    case ZNC_CONFIG_STRING_MAP:
        return cJSON_IsObject(item) != 0;
    default:
        return cJSON_IsArray(item) != 0;
    }
}

bool is_number(const char* text)
{
    char* end = nullptr;
    const znc::ErrnoSaver keep;
    static_cast<void>(::strtoul(text, &end, 0));
    return text[0] != '\0' && *end == '\0';
}

// Whether creating a container accepts the value of an item that has the right type.
bool is_taken(const cJSON* item, ZNC_CONFIG_TYPE type)
{
    const char* const text = cJSON_GetStringValue(item);
    switch (type) {
    case ZNC_CONFIG_VERSION:
        return znc::is_spec_version(text);
    case ZNC_CONFIG_PATH:
        return znc::is_spec_path(text);
    case ZNC_CONFIG_ABSOLUTE_PATH:
        return znc::is_spec_absolute_path(text);
    case ZNC_CONFIG_PROGRAM:
        return znc::is_spec_path(cJSON_GetStringValue(cJSON_GetArrayItem(item, 0)));
    default:
        return true;
    }
}

class Check {
  public:
    Check(ZNC_CONFIG_FUNC func, void* context) : func_(func), context_(context) {}

    // Checks the document. False if out of memory.
    bool document(const cJSON* root)
    {
        constexpr SpecMember kDocument =
            znc::spec_object("", ZNC_CONFIG_OBJECT, Need::kRequired, znc::kDocumentMembers);
        if (cJSON_IsObject(root) != 0) {
            object(root, kDocument, nullptr);
            platform(root);
        } else {
            report(ZNC_CONFIG_REFUSED, nullptr, ZNC_CONFIG_OBJECT, root);
        }
        return !no_memory_;
    }

  private:
    // Reports the first member that the platform refuses.
    void platform(const cJSON* root)
    {
        const znc::CJsonText document(cJSON_PrintUnformatted(root));
        no_memory_ = no_memory_ || document == nullptr;
        if (refused_)
            return; // further findings would be unreliable
        char reason[ZNNS_REASON_MAX] = "";
        if (no_memory_ || znnsConfigurationCheck(document.get(), reason, sizeof reason) == OK)
            return;
        no_memory_ = errno == ENOMEM;
        char* const split = std::strstr(reason, ": ");
        if (no_memory_ || split == nullptr)
            return;
        *split = '\0';
        const ZNC_CONFIG_FINDING finding = {errno == EPERM ? ZNC_CONFIG_NOT_ALLOWED
                                                           : ZNC_CONFIG_REFUSED,
                                            reason, ZNC_CONFIG_ANY, split + 2, nullptr};
        func_(&finding, context_);
    }

    void object(const cJSON* item, const SpecMember& rule, const Place* at)
    {
        for (std::size_t i = 0; i < rule.count; ++i)
            member(cJSON_GetObjectItem(item, rule.members[i].name), rule.members[i], at);
        const cJSON* child = nullptr;
        cJSON_ArrayForEach(child, item) if (!is_read(item, child, rule))
        {
            const Place place = {at, child->string, 0};
            report(ZNC_CONFIG_UNKNOWN, &place, ZNC_CONFIG_ANY, child);
        }
    }

    // Whether the reader uses this member: of members whose names differ in case only, it uses the
    // first.
    static bool is_read(const cJSON* parent, const cJSON* child, const SpecMember& rule)
    {
        for (std::size_t i = 0; i < rule.count; ++i)
            if (::strcasecmp(rule.members[i].name, child->string) == 0)
                return cJSON_GetObjectItem(parent, rule.members[i].name) == child;
        return false;
    }

    void member(const cJSON* item, const SpecMember& rule, const Place* above)
    {
        const Place at = {above, rule.name, 0};
        const bool required = rule.need == Need::kRequired;
        if ((item == nullptr && !required) || rule.need == Need::kPlatform)
            return;
        const bool list = is_list(item, rule);
        if (!has_type(item, rule.type) && !list)
            return report(required ? ZNC_CONFIG_REFUSED : ZNC_CONFIG_IGNORED, &at,
                          plain_type(rule.type), item);
        if (list)
            report(ZNC_CONFIG_MISREAD, &at, plain_type(rule.type), item);
        if (!is_taken(item, rule.type))
            report(ZNC_CONFIG_REFUSED, &at, rule.type, item);
        if (rule.type == ZNC_CONFIG_NUMBER_STRING && !is_number(item->valuestring))
            report(ZNC_CONFIG_MISREAD, &at, rule.type, item);
        if (rule.need == Need::kNoEffect)
            report(ZNC_CONFIG_NO_EFFECT, &at, ZNC_CONFIG_ANY, item);
        if (rule.type == ZNC_CONFIG_OBJECT)
            return rule.count != 0 ? object(item, rule, &at) : void();
        elements(item, rule, &at);
    }

    // Whether an object stands in place of an array: the values of its members are then read as
    // elements.
    static bool is_list(const cJSON* item, const SpecMember& rule)
    {
        const ZNC_CONFIG_TYPE type = plain_type(rule.type);
        return (type == ZNC_CONFIG_STRINGS || type == ZNC_CONFIG_OBJECTS) &&
               cJSON_IsObject(item) != 0 && item->child != nullptr;
    }

    void elements(const cJSON* item, const SpecMember& rule, const Place* above)
    {
        const ZNC_CONFIG_TYPE type = plain_type(rule.type);
        Place at = {above, nullptr, 0};
        const cJSON* child = nullptr;
        cJSON_ArrayForEach(child, item)
        {
            at.name = type == ZNC_CONFIG_STRING_MAP ? child->string : nullptr;
            if (type == ZNC_CONFIG_STRING_MAP && cJSON_IsString(child) == 0)
                report(ZNC_CONFIG_IGNORED, &at, ZNC_CONFIG_STRING, child);
            else if (type == ZNC_CONFIG_STRINGS && cJSON_IsString(child) == 0)
                report(ZNC_CONFIG_MISREAD, &at, ZNC_CONFIG_STRING, child);
            else if (type == ZNC_CONFIG_OBJECTS && cJSON_IsObject(child) == 0)
                report(ZNC_CONFIG_MISREAD, &at, ZNC_CONFIG_OBJECT, child);
            else if (type == ZNC_CONFIG_OBJECTS)
                object(child, rule, &at);
            ++at.index;
        }
    }

    // Writes the path to `out`, which is large enough; if `out` is null, writes nothing. Returns
    // the length.
    static std::size_t write_path(const Place* at, char* out)
    {
        if (at == nullptr)
            return 0;
        std::size_t len = write_path(at->above, out);
        char number[16];
        const char* text = at->name;
        if (text == nullptr) {
            ::snprintf(static_cast<char*>(number), sizeof number, "[%d]", at->index);
            text = static_cast<const char*>(number);
        } else if (len != 0) {
            if (out != nullptr)
                out[len] = '.';
            ++len;
        }
        const std::size_t more = std::strlen(text);
        if (out != nullptr)
            std::memcpy(out + len, text, more + 1);
        return len + more;
    }

    void report(ZNC_CONFIG_VERDICT verdict, const Place* at, ZNC_CONFIG_TYPE expected,
                const cJSON* item)
    {
        const auto path = znc::malloc_array<char>(write_path(at, nullptr) + 1);
        no_memory_ = no_memory_ || !path;
        if (no_memory_)
            return;
        write_path(at, path.get());
        refused_ = refused_ || verdict == ZNC_CONFIG_REFUSED;
        const ZNC_CONFIG_FINDING finding = {verdict, path.get(), expected, kind_of(item),
                                            cJSON_GetStringValue(item)};
        func_(&finding, context_);
    }

    ZNC_CONFIG_FUNC func_;
    void* context_;
    bool no_memory_ = false;
    bool refused_ = false;
};

} // namespace

STATUS zncConfigCheck(const char* text, size_t len, ZNC_CONFIG_FUNC func, void* context)
{
    if (text == nullptr || func == nullptr)
        return znc::fail(EINVAL);
    const znc::CJsonPtr tree(cJSON_parse_whole(text, len));
    if (!tree)
        return ERROR;
    if (Check(func, context).document(tree.get()))
        return OK;
    return znc::fail(ENOMEM);
}
