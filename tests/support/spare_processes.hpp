// spare_processes.hpp - the processes that a daemon keeps although it has no container: spare
// keepers and their starter. They come and go without any request.
#ifndef SPARE_PROCESSES_HPP
#define SPARE_PROCESSES_HPP

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <sys/types.h>

namespace spare_processes {

// "" if the process of a file below /proc has ended, also while it is read.
inline std::string text_of_file(const std::filesystem::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string name_of(pid_t pid)
{
    return text_of_file("/proc/" + std::to_string(pid) + "/comm");
}

inline std::set<pid_t> children_of(pid_t parent)
{
    const std::string id = std::to_string(parent);
    std::istringstream list(text_of_file("/proc/" + id + "/task/" + id + "/children"));
    return {std::istream_iterator<pid_t>(list), {}};
}

// The children of `parent` that are named so: "zn-spare" or "zn-starter".
inline std::set<pid_t> named(pid_t parent, const std::string& name)
{
    std::set<pid_t> found;
    for (const pid_t pid : children_of(parent))
        if (name_of(pid) == name + "\n")
            found.insert(pid);
    return found;
}

inline bool is_one(pid_t pid)
{
    const std::string name = name_of(pid);
    return name == "zn-spare\n" || name == "zn-starter\n";
}

} // namespace spare_processes

#endif
