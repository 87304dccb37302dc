// engine_copy.hpp - copies a directory of a root into a new file system.
#ifndef ZN_ENGINE_COPY_HPP
#define ZN_ENGINE_COPY_HPP

namespace zn {

// Copies the contents of the directory `path` of the tree `root`, its owner and, with `mode`, its
// mode to the directory `to`. `path` is resolved inside the tree. True also if there is no such
// directory; false with errno set. Hard links become files of their own.
bool directory_copy(int root, const char* path, int to, bool mode);

} // namespace zn

#endif
