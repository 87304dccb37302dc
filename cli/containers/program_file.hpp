// program_file.hpp - examines the file of a program inside a container's root, to say why it could
// not be started. For messages only: the file may be another one by the time it is used.
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

// A path in a container as the spawner resolves it: relative to the working directory.
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
