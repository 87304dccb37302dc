// alloc_fault.hpp - makes the nth allocation fail, for tests of out-of-memory handling.
//
// A test program that uses it lists tests/support/alloc_fault.cpp in SOURCES and
// "malloc calloc realloc strdup" in WRAP; the library's own calls and those of cJSON are then
// counted. Only the calling thread's allocations count.
#ifndef ALLOC_FAULT_HPP
#define ALLOC_FAULT_HPP

namespace alloc_fault {

// Starts counting allocations and makes the nth one fail (1: the first). 0 counts without failing
// any.
void arm(unsigned nth);

// Stops counting and returns the number of allocations since arm().
unsigned disarm();

} // namespace alloc_fault

#endif
