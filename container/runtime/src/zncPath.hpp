// zncPath.hpp - what separates the components of a path: for images, bundles and archives alike.
//
// Used by the container registry, the overlay devices and the archive reader. Left out: the
// platform's own paths, which only know "/".
#ifndef ZNCPATH_HPP
#define ZNCPATH_HPP

inline bool pathIsSep(char ch)
{
    return ch == '/' || ch == '\\';
}

#endif
