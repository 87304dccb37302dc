// path_rest.cpp - see path_rest.hpp.
#include "path_rest.hpp"

#include "base/failure.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace zn {
namespace {

constexpr int kLinksMax = 40;

} // namespace

bool PathRest::append(const char* text) noexcept
{
    const std::size_t len = std::strlen(rest_);
    const int n = std::snprintf(rest_ + len, sizeof rest_ - len, "/%s", text);
    if (n >= 0 && static_cast<std::size_t>(n) < sizeof rest_ - len)
        return true;
    return znc::fail(ENAMETOOLONG, false);
}

bool PathRest::next() noexcept
{
    const char* begin = rest_ + std::strspn(rest_, "/");
    const std::size_t len = std::strcspn(begin, "/");
    if (len >= sizeof name_)
        return znc::fail(ENAMETOOLONG, false);
    std::memcpy(name_, begin, len);
    name_[len] = '\0';
    std::memmove(rest_, begin + len, std::strlen(begin + len) + 1);
    return true;
}

bool PathRest::is_last() const noexcept
{
    return rest_[std::strspn(rest_, "/")] == '\0';
}

bool PathRest::follow(int dir, bool& absolute) noexcept
{
    char target[PATH_MAX];
    const ssize_t len = ::readlinkat(dir, name_, target, sizeof target);
    if (len <= 0 || static_cast<std::size_t>(len) >= sizeof target || ++links_ > kLinksMax) {
        if (len > 0)
            errno = links_ > kLinksMax ? ELOOP : ENAMETOOLONG;
        return false;
    }
    target[len] = '\0';
    char remainder[sizeof rest_];
    std::strcpy(remainder, rest_);
    rest_[0] = '\0';
    absolute = target[0] == '/';
    return append(target) && (remainder[0] == '\0' || append(remainder));
}

} // namespace zn
