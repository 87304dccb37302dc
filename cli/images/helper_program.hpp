// helper_program.hpp - runs the programs that read images for zncctl and waits for them:
// zncctl-import, the only one that reads archives, and skopeo, which talks to registries. Used by
// import, pull, load and the image store.
#ifndef ZNC_CLI_IMAGES_HELPER_PROGRAM_HPP
#define ZNC_CLI_IMAGES_HELPER_PROGRAM_HPP

#include <string>
#include <vector>

namespace zncctl {

// The path of zncctl-import: in the directory of zncctl when run from the build tree, otherwise
// below the installation prefix. Throws std::system_error.
std::string import_program();

// The words as execv() takes them, with the null pointer at the end; valid as long as they are.
std::vector<char*> argument_vector(std::vector<std::string>& words);

// Where a program's output goes.
enum class Output {
    kError,     // its standard output to the caller's standard error
    kDiscarded, // its standard output nowhere
    kKept,      // its standard output to ProgramEnd
    kErrorsKept // its standard output to the caller's standard error, its errors to ProgramEnd
};

struct ProgramEnd {
    int error = 0;         // errno if it could not be started
    int status = 0;        // exit status; 128 plus the number of the signal that killed it
    std::string output;    // its output, if that is kept
    bool too_much = false; // it printed more than 16 MiB, and the output is only the beginning
};

// Runs a program, which is looked up in PATH if its name has no "/", with the standard input
// `input` (-1: the null device), and waits for its end.
ProgramEnd run_program(const std::string& program, const std::vector<std::string>& arguments,
                       int input, Output output);

} // namespace zncctl

#endif
