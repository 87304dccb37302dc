// path_rest.hpp - the part of a path that is still to be resolved, taken component by component.
// Used by what resolves paths itself because it checks or confines each step.
#ifndef ZN_PLATFORM_PATH_REST_HPP
#define ZN_PLATFORM_PATH_REST_HPP

#include <climits>

namespace zn {

class PathRest {
  public:
    // Appends "/" and the text. False with errno ENAMETOOLONG.
    bool append(const char* text) noexcept;

    // Takes the next component, which name() then returns; at the end of the path that is "". False
    // with errno ENAMETOOLONG.
    bool next() noexcept;
    [[nodiscard]] const char* name() const noexcept { return name_; }

    // Whether nothing, or only "/", follows the component.
    [[nodiscard]] bool is_last() const noexcept;
    // Whether "/" follows the component, which therefore must be a directory.
    [[nodiscard]] bool slash_follows() const noexcept { return rest_[0] == '/'; }

    // Puts the target of the symbolic link name() in the directory `dir` before the rest.
    // `absolute`: the target begins with "/". False with errno: ELOOP after 40 links, as in the
    // lookup of Linux, ENAMETOOLONG, or that of readlinkat.
    bool follow(int dir, bool& absolute) noexcept;

  private:
    char rest_[2 * PATH_MAX] = "";
    char name_[NAME_MAX + 1] = "";
    int links_ = 0;
};

} // namespace zn

#endif
