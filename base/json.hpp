// json.hpp - ownership of cJSON trees, and parsing of complete documents. Users link libcjson
// themselves.
#ifndef ZNC_BASE_JSON_HPP
#define ZNC_BASE_JSON_HPP

#include "owned.hpp"

#include <memory>
#include <string_view>

#include <cjson/cJSON.h>

namespace znc {

struct CJsonDeleter {
    void operator()(cJSON* tree) const noexcept
    {
        const ErrnoSaver keep;
        cJSON_Delete(tree);
    }
};
using CJsonPtr = std::unique_ptr<cJSON, CJsonDeleter>;

// Parses a document. Null with errno EINVAL if it is not JSON, is nested more than 1000 levels deep
// (the limit of cJSON) or is followed by anything but white space; ENOMEM.
inline CJsonPtr parse_json(std::string_view text) noexcept
{
    const char* stopped = text.data();
    errno = 0;
    CJsonPtr tree(cJSON_ParseWithLengthOpts(text.data(), text.size(), &stopped, 0));
    if (!tree) {
        errno = errno == ENOMEM ? ENOMEM : EINVAL;
        return tree;
    }
    const auto used = static_cast<std::size_t>(stopped - text.data());
    if (text.substr(used).find_first_not_of(" \t\n\r") != std::string_view::npos) {
        tree.reset();
        errno = EINVAL;
    }
    return tree;
}

} // namespace znc

#endif
