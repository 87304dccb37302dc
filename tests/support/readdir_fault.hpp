// readdir_fault.hpp - makes a readdir() of a test program fail. For programs that are linked with
// WRAP readdir.
#ifndef ZNC_TESTS_READDIR_FAULT_HPP
#define ZNC_TESTS_READDIR_FAULT_HPP

// The number of calls until one fails with EIO; 0: none does.
inline int readdir_fault_in = 0;

#include <cerrno>
#include <dirent.h>

extern "C" dirent* __real_readdir(DIR* stream);
extern "C" dirent* __wrap_readdir(DIR* stream)
{
    if (readdir_fault_in == 0 || --readdir_fault_in != 0)
        return __real_readdir(stream);
    errno = EIO;
    return nullptr;
}

#endif
