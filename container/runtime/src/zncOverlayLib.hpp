// zncOverlayLib.hpp - storage areas under the base directory, and overlay devices.
//
// The operations are declared in the public header; used by the container manager and the image
// unpacker. Here only what unit tests reach besides. Left out: how a device is made, which the
// platform knows.
#ifndef ZNCOVERLAYLIB_HPP
#define ZNCOVERLAYLIB_HPP

namespace znc::overlay {

inline bool pathIsSep(char ch)
{
    return ch == '/' || ch == '\\';
}

} // namespace znc::overlay

#endif
