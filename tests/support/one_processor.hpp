// one_processor.hpp - restricts the calling thread to one of its processors, for the lifetime of an
// object.
#ifndef ONE_PROCESSOR_HPP
#define ONE_PROCESSOR_HPP

#include <cstddef>
#include <gtest/gtest.h>
#include <sched.h>

class OneProcessor {
  public:
    OneProcessor()
    {
        EXPECT_EQ(::sched_getaffinity(0, sizeof before_, &before_), 0);
        cpu_set_t one = before_;
        for (std::size_t i = 0; CPU_COUNT(&one) > 1; i++)
            CPU_CLR(i, &one);
        EXPECT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    }
    ~OneProcessor() { EXPECT_EQ(::sched_setaffinity(0, sizeof before_, &before_), 0); }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

  private:
    cpu_set_t before_ = {};
};

#endif
