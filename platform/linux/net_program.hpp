// net_program.hpp - the process of the program that connects a namespace's network: its user, its
// capabilities and its descriptors. Used by ns_network.
#ifndef ZN_NET_PROGRAM_HPP
#define ZN_NET_PROGRAM_HPP

#include <cstddef>
#include <sys/types.h>

namespace zn {

struct NetProgram {
    const char* path;
    const char* const* args;
};

// Lets the program's user open the pipe of this descriptor by its path in /proc. False with errno
// set.
bool net_program_may_open(int pipe);

// Makes this forked process independent of the caller: null device as standard streams, working
// directory "/", no descriptors but the given ones, all signals blocked. False if it cannot.
bool detach_process(const int* kept, std::size_t count);

// Becomes the program; its parent must be the process `parent`, with which it ends. Writes what
// fails to `output`.
[[noreturn]] void net_program_exec(const NetProgram& program, pid_t parent, int network, int ready,
                                   int output);

} // namespace zn

#endif
