// test_size.hpp - the size of a test: small in the suite, larger in runs by hand.
#ifndef TEST_SIZE_HPP
#define TEST_SIZE_HPP

#include <cstdlib>

namespace system_world {

// How often something is done: the size for the suite, unless the environment names another.
inline int size_of(const char* variable, int usual)
{
    const char* text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : usual;
}

} // namespace system_world

#endif
