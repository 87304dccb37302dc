// zncOwned.hpp - owning types for resources of the library's dependencies, and the bounded copy
// that all path composition uses. Used by every module. Descriptors and malloc'd memory are in
// base/owned.hpp, cJSON trees in base/json.hpp.
#ifndef ZNCOWNED_HPP
#define ZNCOWNED_HPP

#include "base/json.hpp"

#include <cstring>

namespace znc {

inline constexpr std::size_t kPathMax = 1024; // every path buffer, terminator included

// Text printed by cJSON.
struct CJsonTextDeleter {
    void operator()(char* text) const noexcept
    {
        const ErrnoSaver keep;
        cJSON_free(text);
    }
};
using CJsonText = std::unique_ptr<char, CJsonTextDeleter>;

// Copies `src` to `out`, whose buffer ends at `end`. Returns the position of the terminating NUL,
// or `end` when the text was cut to fit (what fitted is terminated). out == end copies nothing and
// returns `end`, so a chain of copies needs one check at its end.
inline char* copy_end(char* out, char* end, const char* src) noexcept
{
    if (out >= end)
        return end;
    const std::size_t room = static_cast<std::size_t>(end - out);
    const std::size_t len = ::strnlen(src, room);
    if (len < room) {
        std::memcpy(out, src, len + 1);
        return out + len;
    }
    std::memcpy(out, src, room - 1);
    out[room - 1] = '\0';
    return end;
}

} // namespace znc

#endif
