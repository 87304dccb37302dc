// confine.hpp - takes from the process that reads a stranger's image whatever it does not need.
// Used by import.cpp, in the worker process, before the first byte is read.
#ifndef ZNCIMPORT_CONFINE_HPP
#define ZNCIMPORT_CONFINE_HPP

#include <span>

namespace zncimport {

// Keeps the standard streams and these descriptors and closes all others. From then on the process
// sees no files but those below `source_dir` (-1: none at all), writes to none by name, gains no
// rights by executing, leaves no core and ends with its parent. Root becomes nobody; where a
// directory is to be read it may still pass over permissions there. Throws Failure.
//
// Without root the kernel's own means are used where it has them (Landlock).
void confine(std::span<const int> kept, int source_dir);

} // namespace zncimport

#endif
