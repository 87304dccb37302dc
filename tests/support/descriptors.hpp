// descriptors.hpp - how many descriptors this process has open, for tests that none is left behind.
#ifndef DESCRIPTORS_HPP
#define DESCRIPTORS_HPP

#include <filesystem>
#include <iterator>

// The descriptor that does the counting counts too; compare two results.
inline std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

#endif
