// root_walk.cpp - see root_walk.hpp.
#include "root_walk.hpp"

#include "base/failure.hpp"
#include "directory_flags.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace zn {
namespace {

// Attempts at a component that another process replaces by a link and back, again and again.
constexpr int kTries = 200;

} // namespace

bool RootWalk::resolve(const char* path, bool follow_last) noexcept
{
    if (path[0] == '\0')
        return znc::fail(ENOENT, false);
    if (!rest_.append(path) || !rewind())
        return false;
    Step step = Step::kMore;
    while (step == Step::kMore)
        step = this->step(follow_last);
    return step == Step::kDone;
}

const char* RootWalk::entry() const noexcept
{
    return rest_.name()[0] != '\0' ? rest_.name() : ".";
}

RootWalk::Step RootWalk::step(bool follow_last) noexcept
{
    if (!rest_.next())
        return Step::kFailed;
    const char* name = rest_.name();
    if (name[0] == '\0')
        return Step::kDone;
    if (std::strcmp(name, ".") == 0)
        return Step::kMore;
    if (std::strcmp(name, "..") == 0)
        return up() ? Step::kMore : Step::kFailed;
    for (int tries = 0; tries < kTries; ++tries) {
        struct stat st;
        if (::fstatat(at_.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return Step::kFailed;
        const bool is_last = rest_.is_last() && !rest_.slash_follows();
        if (S_ISLNK(st.st_mode) && (!is_last || follow_last))
            return follow();
        if (is_last)
            return Step::kDone;
        if (down(name))
            return Step::kMore;
        if (errno != ENOTDIR || !S_ISDIR(st.st_mode)) // else it was replaced meanwhile
            break;
    }
    return Step::kFailed;
}

RootWalk::Step RootWalk::follow() noexcept
{
    bool absolute = false;
    if (!rest_.follow(at_.get(), absolute) || (absolute && !rewind()))
        return Step::kFailed;
    return Step::kMore;
}

bool RootWalk::rewind() noexcept
{
    struct stat st;
    at_.reset(::openat(root_, ".", kSearchFlags));
    place_[0] = '\0';
    if (!at_ || ::fstat(at_.get(), &st) != 0)
        return false;
    device_ = st.st_dev;
    return true;
}

bool RootWalk::open_next(const char* name) noexcept
{
    struct stat st;
    znc::UniqueFd next(::openat(at_.get(), name, kSearchFlags));
    if (!next || ::fstat(next.get(), &st) != 0) {
        if (errno == ELOOP) // replaced by a link meanwhile
            errno = ENOTDIR;
        return false;
    }
    if (one_device_ && st.st_dev != device_)
        return znc::fail(EXDEV, false);
    at_ = std::move(next);
    return true;
}

bool RootWalk::down(const char* name) noexcept
{
    if (!open_next(name))
        return false;
    const std::size_t len = std::strlen(place_);
    const int n = std::snprintf(place_ + len, sizeof place_ - len, "/%s", name);
    if (n >= 0 && static_cast<std::size_t>(n) < sizeof place_ - len)
        return true;
    return znc::fail(ENAMETOOLONG, false);
}

// At the root, ".." is the root.
bool RootWalk::up() noexcept
{
    char place[sizeof place_];
    std::strcpy(place, place_);
    char* last = std::strrchr(place, '/');
    if (last == nullptr)
        return true;
    *last = '\0';
    if (!rewind())
        return false;
    char* more = nullptr;
    for (char* name = ::strtok_r(place, "/", &more); name != nullptr;
         name = ::strtok_r(nullptr, "/", &more))
        if (!down(name))
            return false;
    return true;
}

} // namespace zn
