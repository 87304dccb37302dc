// descriptors.hpp - counts the open descriptors of this process, for tests that check for leaks.
#ifndef DESCRIPTORS_HPP
#define DESCRIPTORS_HPP

#include <filesystem>
#include <iterator>

// Includes the descriptor used for counting; compare two results.
inline std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

#endif
