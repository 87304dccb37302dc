// own_namespace.hpp - whether a namespace is that of the caller. Used where what a configuration
// changes in a namespace that it names by path must not be changed for the caller.
#ifndef ZN_OWN_NAMESPACE_HPP
#define ZN_OWN_NAMESPACE_HPP

#include <cstdio>
#include <sys/stat.h>

namespace zn {

// `file`: the name of the kind below /proc/self/ns. A path that does not exist is none.
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
