// cJSON_Additions.cpp - see cJSON_Additions.h.
#include "cJSON_Additions.h"
#include "base/failure.hpp"
#include "base/file.hpp"
#include "zarnel/fs.h"
#include "zncOwned.hpp"

#include <limits>

namespace {

template <class Int> Int saturated(const cJSON* item)
{
    if (!cJSON_IsNumber(item))
        return 0;
    const double value = item->valuedouble;
    // The maximum of Int may not be representable as a double, but the maximum plus one always is.
    constexpr double kBelow = -static_cast<double>(std::numeric_limits<Int>::min());
    if (value >= kBelow)
        return std::numeric_limits<Int>::max();
    if (value <= -kBelow)
        return std::numeric_limits<Int>::min();
    return value == value ? static_cast<Int>(value) : 0; // NaN becomes 0
}

} // namespace

cJSON* cJSON_load_from_file(const char* path)
{
    if (path == nullptr)
        return znc::fail(EINVAL, nullptr);
    struct stat st = {};
    const znc::UniqueFd fd = znc::open_regular(path, &st);
    const znc::FileText text = fd ? znc::read_text(fd.get(), st) : znc::FileText();
    return text.bytes != nullptr ? cJSON_parse_whole(text.bytes.get(), text.len) : nullptr;
}

cJSON* cJSON_parse_whole(const char* text, size_t len)
{
    return znc::parse_json({text, len}).release();
}

int cJSON_dump_to_file(const cJSON* tree, const char* path, mode_t mode)
{
    if (tree == nullptr || path == nullptr)
        return znc::fail(EINVAL);
    const znc::CJsonText text(cJSON_Print(tree));
    if (text == nullptr)
        return znc::fail(ENOMEM);
    znc::UniqueFd fd(znFileCreate(path, mode));
    if (!fd)
        return -1;
    // The file must survive a power failure once this function has returned.
    if (znc::write_all(fd.get(), text.get()) && fsync(fd.get()) == 0 && fd.close_checked() == 0)
        return 0;
    const znc::ErrnoSaver keep;
    unlink(path);
    return -1;
}

int32_t cJSON_integer_value(const cJSON* item)
{
    return saturated<int32_t>(item);
}

int64_t cJSON_integer64_value(const cJSON* item)
{
    return saturated<int64_t>(item);
}
