// platform_only.hpp - skips tests of behaviour that platform/linux has and platform/posix cannot
// have.
#ifndef ZNC_TEST_PLATFORM_ONLY_HPP
#define ZNC_TEST_PLATFORM_ONLY_HPP

#include <gtest/gtest.h>

// At the beginning of a test. The reason says what POSIX lacks.
#define LINUX_ONLY(reason)                                                                         \
    if (!ZNC_TEST_PLATFORM_LINUX)                                                                  \
    GTEST_SKIP() << "POSIX: " << (reason)

#endif
