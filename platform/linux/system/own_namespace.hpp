// own_namespace.hpp - whether a path names a namespace of the caller. Used before a setting is
// applied to a namespace that a configuration names by path, since it must not change the caller's
// own.
#ifndef ZN_OWN_NAMESPACE_HPP
#define ZN_OWN_NAMESPACE_HPP

#include <cstdio>
#include <sys/stat.h>

namespace zn {

// `file`: the name of the namespace type below /proc/self/ns. False for a path that does not exist.
inline bool is_own_namespace(const char* path, const char* file)
{
    char own[64];
    struct stat named;
    struct stat mine;
    std::snprintf(own, sizeof own, "/proc/self/ns/%s", file);
    return ::stat(path, &named) == 0 && ::stat(own, &mine) == 0 && named.st_dev == mine.st_dev &&
           named.st_ino == mine.st_ino;
}

} // namespace zn

#endif
