// replay_main.cpp - runs a fuzz target over inputs from files, in builds without libFuzzer.
//
// usage: PROGRAM FILE|DIRECTORY...
#include "fuzz_input.hpp"
#include "test_tree.hpp"

#include <algorithm>
#include <exception>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<std::string> files_below(const fs::path& path)
{
    if (!fs::is_directory(path))
        return {path};
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(path))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void run(const std::string& file)
{
    const std::string bytes = test_tree::read_file(file);
    // As much memory as the input has, so that reading behind it is found.
    const std::vector<std::uint8_t> exact(bytes.begin(), bytes.end());
    std::fprintf(stderr, "%s\n", file.c_str());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

} // namespace

int main(int argc, char** argv)
{
    std::size_t count = 0;
    try {
        for (int i = 1; i < argc; ++i)
            for (const std::string& file : files_below(argv[i])) {
                run(file);
                ++count;
            }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::fprintf(stderr, "%zu inputs\n", count);
    return count > 0 ? 0 : 1; // nothing run is nothing shown
}
