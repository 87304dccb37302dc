// zncRuntimeCSLib.cpp - converts parameter tables to JSON objects and back.
#include "zncRuntimeCSLib.hpp"

#include "base/failure.hpp"
#include "cJSON_Additions.h"

#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>

namespace {

using znc::CJsonPtr;
using znc::param_pointer;

// C callers may store values that are not enumerators, which must not be read as the enum type.
int type_of(const zncParam& param)
{
    static_assert(sizeof(param.type) == sizeof(int));
    int type = 0;
    std::memcpy(&type, &param.type, sizeof type);
    return type;
}

// Adds `item` under a copy of `key`; deletes it if it cannot be added.
bool add_item(cJSON* object, const char* key, CJsonPtr item)
{
    if (item == nullptr || cJSON_AddItemToObject(object, key, item.get()) == 0)
        return false;
    static_cast<void>(item.release());
    return true;
}

bool append_item(cJSON* array, cJSON* item)
{
    return cJSON_AddItemToArray(array, item) != 0;
}

// An item that refers to the content of another without owning it. cJSON_AddItemReferenceToObject
// is not used because it leaks the reference if the key cannot be copied.
CJsonPtr reference_to(const cJSON* item)
{
    if (cJSON_IsArray(item))
        return CJsonPtr(cJSON_CreateArrayReference(item->child));
    if (cJSON_IsObject(item))
        return CJsonPtr(cJSON_CreateObjectReference(item->child));
    if (cJSON_IsString(item))
        return CJsonPtr(cJSON_CreateStringReference(item->valuestring));
    return CJsonPtr(cJSON_Duplicate(item, 0));
}

// The add functions return 0 or the errno value for zncParamObjInit.

int add_integer(cJSON* object, const zncParam& param)
{
    CJsonPtr number(cJSON_CreateNumber(static_cast<double>(param.value)));
    if (number == nullptr)
        return ENOMEM;
    add_item(object, param.name, std::move(number));
    return 0;
}

int add_strings(cJSON* object, const zncParam& param)
{
    char* const* strings = param_pointer<char*>(param);
    if (strings == nullptr || param.number <= 0)
        return 0;
    CJsonPtr array(cJSON_CreateArray());
    if (array == nullptr)
        return ENOMEM;
    for (const char* text : std::span(strings, static_cast<std::size_t>(param.number)))
        if (!append_item(array.get(), cJSON_CreateString(text)))
            return ENOMEM;
    return add_item(object, param.name, std::move(array)) ? 0 : EINVAL;
}

int add_param(cJSON* object, const zncParam& param)
{
    switch (type_of(param)) {
    case INTEGER:
        return add_integer(object, param);
    case STRING:
        // cJSON creates no item for a NULL string: the key is left out.
        add_item(object, param.name, CJsonPtr(cJSON_CreateString(param_pointer<char>(param))));
        return 0;
    case STRING_ARRAY:
        return add_strings(object, param);
    case OBJECT:
        return add_item(object, param.name, reference_to(param_pointer<cJSON>(param))) ? 0 : EINVAL;
    default:
        return 0;
    }
}

bool read_string(const cJSON* item, zncParam& param)
{
    const char* text = cJSON_GetStringValue(item);
    if (text == nullptr)
        return false;
    param.value = reinterpret_cast<std::intptr_t>(text);
    return true;
}

bool read_strings(const cJSON* item, zncParam& param)
{
    const int count = cJSON_GetArraySize(item);
    if (count == 0)
        return true;
    auto strings = znc::malloc_array<char*>(static_cast<std::size_t>(count) + 1);
    if (strings == nullptr)
        return znc::fail(ENOMEM, false);
    // From here on the vector belongs to the table. Its owner frees it, or zncParamObjGet if it
    // fails.
    char** next = strings.release();
    param.number = count;
    param.value = reinterpret_cast<std::intptr_t>(next);
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
    {
        char* text = cJSON_GetStringValue(element);
        if (text == nullptr)
            return false;
        *next++ = text;
    }
    return true;
}

bool read_param(cJSON* item, zncParam& param)
{
    switch (type_of(param)) {
    case INTEGER:
        param.value = cJSON_integer64_value(item);
        return true;
    case STRING:
        return read_string(item, param);
    case STRING_ARRAY:
        return read_strings(item, param);
    case OBJECT:
        param.value = reinterpret_cast<std::intptr_t>(item);
        return true;
    default:
        return true;
    }
}

// The pointers stay in the table but must not be used afterwards.
void free_strings(std::span<const zncParam> params)
{
    for (const zncParam& param : params)
        if (type_of(param) == STRING_ARRAY)
            znc::MallocPtr<char*>(param_pointer<char*>(param)).reset();
}

} // namespace

ZNC_PARAM_DATA* zncParamObjInit(zncParam* param, int count)
{
    CJsonPtr object(cJSON_CreateObject());
    if (object == nullptr)
        return znc::fail(ENOMEM, nullptr);
    if (param == nullptr || count <= 0)
        return object.release();
    for (const zncParam& entry : std::span(param, static_cast<std::size_t>(count))) {
        const int failure = add_param(object.get(), entry);
        if (failure != 0)
            return znc::fail(failure, nullptr);
    }
    return object.release();
}

STATUS zncParamObjGet(ZNC_PARAM_DATA* pData, zncParam* param, unsigned int count)
{
    if (pData == nullptr || param == nullptr || count == 0)
        return znc::fail(EINVAL);
    const std::span params(param, count);
    for (std::size_t i = 0; i < params.size(); i++) {
        cJSON* item = cJSON_GetObjectItem(pData, params[i].name);
        if (item != nullptr && !read_param(item, params[i])) {
            free_strings(params.first(i + 1));
            return ERROR;
        }
    }
    return OK;
}

STATUS zncParamObjDestroy(zncParam* param, unsigned int count)
{
    if (param == nullptr || count == 0)
        return znc::fail(EINVAL);
    free_strings(std::span(param, count));
    return OK;
}

// Deliberately a prefix match: "opt" finds "option", and "" the first entry.
zncData zncParamValueGetByName(zncParam* param, int count, const char* name)
{
    if (param == nullptr || name == nullptr || count <= 0)
        return 0;
    for (const zncParam& entry : std::span(param, static_cast<std::size_t>(count)))
        if (entry.name != nullptr && std::string_view(entry.name).starts_with(name))
            return entry.value;
    return 0;
}

cJSON* zncConfigToArray(char** argument)
{
    CJsonPtr array(cJSON_CreateArray());
    if (array == nullptr)
        return nullptr;
    for (; *argument != nullptr; argument++)
        append_item(array.get(), cJSON_CreateString(*argument));
    return array.release();
}

void zncJsonCopy(cJSON* srcObj, char* srcName, cJSON* dstObj, char* dstName)
{
    const cJSON* member = cJSON_GetObjectItem(srcObj, srcName);
    add_item(dstObj, dstName,
             CJsonPtr(member != nullptr ? cJSON_Duplicate(member, 1) : cJSON_CreateString("")));
}
