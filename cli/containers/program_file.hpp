// program_file.hpp - examines the file of a program inside a container's root, to say why it could
// not be started. For messages only: the file may be replaced at any time.
#ifndef ZNC_CLI_CONTAINERS_PROGRAM_FILE_HPP
#define ZNC_CLI_CONTAINERS_PROGRAM_FILE_HPP

#include <string>
#include <sys/stat.h>

namespace zncctl {

// Returns 0 and the mode of the file at `path` inside the root directory, resolving symbolic links
// there, or an errno value.
int file_mode_in_root(int root, const std::string& path, mode_t& mode);

struct ProgramFault {
    std::string message;
    int status; // exit status 126 or 127
};

// An absolute path in a container; a relative one is resolved from the working directory, as by the
// spawner.
std::string absolute_path(const std::string& directory, const std::string& path);

// What the spawner is given to find a program.
struct WantedProgram {
    std::string command;
    std::string directory; // the working directory
    const char* search;    // the container's PATH; null: there is none
};

// Why a program could not be started in this root.
ProgramFault program_fault(int root, const WantedProgram& wanted);

} // namespace zncctl

#endif
