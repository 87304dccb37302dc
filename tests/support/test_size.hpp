// test_size.hpp - the number of repetitions of a test: small in the test suite, larger in manual
// runs.
#ifndef TEST_SIZE_HPP
#define TEST_SIZE_HPP

#include <cstdlib>

namespace system_world {

// Returns the value of the environment variable if it is set, otherwise `usual`.
inline int size_of(const char* variable, int usual)
{
    const char* text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : usual;
}

} // namespace system_world

#endif
