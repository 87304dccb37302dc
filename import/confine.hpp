// confine.hpp - drops every privilege that the process which reads an untrusted image does not
// need. Used by import.cpp, in the worker process, before the first byte is read.
#ifndef ZNCIMPORT_CONFINE_HPP
#define ZNCIMPORT_CONFINE_HPP

#include <span>

namespace zncimport {

// Keeps the standard streams and the descriptors `kept`, and closes all others. Afterwards the
// process can open only files below `source_dir` (-1: none at all), and only for reading; it cannot
// gain privileges by execve(), writes no core dump, and is killed when its parent ends. Root
// becomes nobody; if a directory is to be read, it keeps the capability to bypass file permissions.
// Throws Failure.
//
// Without root, Landlock is used where the kernel supports it.
void confine(std::span<const int> kept, int source_dir);

} // namespace zncimport

#endif
