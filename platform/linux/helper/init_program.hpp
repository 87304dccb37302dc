// init_program.hpp - the program of a process in an engine's container (init.cpp): looking it up,
// its terminal, becoming it.
#ifndef ZN_INIT_PROGRAM_HPP
#define ZN_INIT_PROGRAM_HPP

#include "program.hpp"
#include "wire.hpp"

namespace zn {

inline constexpr std::size_t kProgramPathMax = 4096;

// The program as described by argv and envp of the helper.
struct Program {
    const char* directory;
    int descriptors; // how many it gets besides the standard streams
    bool terminal;
    bool keepKeyring;
    bool unconfined;
    const char* path;           // of the program; "": that of argv[0]
    std::uint64_t terminalSize; // rows << 16 | columns; 0: not set
    char** argv;
    char** envp;
    char file[kProgramPathMax]; // its path, once it was found
};

// Enters the user namespace `descriptor`, a namespace or a pidfd, as its root. What needs the
// rights of the host's root is done before: the owner of the standard streams is changed.
void user_enter(const Rules& rules, int descriptor);

void program_read(char** argv, char** envp, Program& program);

// Makes the working directory and looks the program up. 0 or an error number; `what` is then the
// wire::SpawnReport::Kind of the error.
int program_find(Program& program, std::uint64_t* what);

// Makes a pseudo-terminal in the container's devpts the standard streams, sends its other end, and
// binds it to /dev/console if `console`. 0 or an error number.
int terminal_provide(int socket, std::uint64_t size, bool console);

void program_report(int descriptor, wire::SpawnReport::Kind kind, long result);

[[noreturn]] void program_become(const Rules& rules, const Program& program);

// Becomes a program of the host with the rights of the caller.
[[noreturn]] void program_become_unconfined(const Program& program);

} // namespace zn

#endif
