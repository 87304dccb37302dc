// root_walk.hpp - resolves paths in the directory tree of a container's root, so that neither ".."
// nor symbolic links lead out of it.
#ifndef ZN_POSIX_ROOT_WALK_HPP
#define ZN_POSIX_ROOT_WALK_HPP

#include "base/owned.hpp"
#include "platform/common/path_rest.hpp"

#include <climits>
#include <sys/types.h>

namespace zn {

// Each component is opened in the directory before it, without following links, and ".." is never
// opened: the walk begins again at the root. Concurrent renames therefore cannot lead it outside.
class RootWalk {
  public:
    // `one_device`: fail with EXDEV at a directory of another file system.
    explicit RootWalk(int root, bool one_device = false) noexcept
        : root_(root), one_device_(one_device)
    {
    }

    // Resolves all components but the last one; that, too, if it is a link and `follow_last` is set
    // or if it must be a directory. False with errno set.
    bool resolve(const char* path, bool follow_last) noexcept;

    // After resolve(): the directory, and the entry in it: "." if the path names the directory
    // itself.
    [[nodiscard]] int directory() const noexcept { return at_.get(); }
    [[nodiscard]] const char* entry() const noexcept;

  private:
    enum class Step { kDone, kMore, kFailed };

    Step step(bool follow_last) noexcept;
    Step follow() noexcept;
    bool rewind() noexcept;
    bool open_next(const char* name) noexcept;
    bool down(const char* name) noexcept;
    bool up() noexcept;

    int root_;
    bool one_device_;
    dev_t device_ = 0;
    znc::UniqueFd at_;
    PathRest rest_;
    char place_[PATH_MAX] = ""; // of at_ in the root: "/usr/lib"; "" for the root itself
};

} // namespace zn

#endif
