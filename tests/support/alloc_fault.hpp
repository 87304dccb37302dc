// alloc_fault.hpp - makes the nth allocation of a piece of code fail, for tests of what then
// happens.
//
// A test program that uses it lists tests/support/alloc_fault.cpp in SOURCES and
// "malloc calloc realloc strdup" in WRAP; the library's own calls and those of cJSON are then
// counted. Only the calling thread's allocations count.
#ifndef ALLOC_FAULT_HPP
#define ALLOC_FAULT_HPP

namespace alloc_fault {

// From now on count allocations and fail the nth (1: the first). 0 counts without failing any.
void arm(unsigned nth);

// Stop; returns how many allocations were asked for since arm().
unsigned disarm();

} // namespace alloc_fault

#endif
