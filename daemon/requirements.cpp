#include "requirements.hpp"

#include "log.hpp"
#include "runtime_dir.hpp"
#include "zarnel/requirement.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace zncd {
namespace {

// The daemon's own ones, and the platform's.
std::vector<znRequirement> requirements()
{
    const bool root = ::geteuid() == 0;
    const bool dir =
        ::access(kRuntimeDir, W_OK) == 0 || (errno == ENOENT && ::access("/run", W_OK) == 0);
    std::vector<znRequirement> all = {
        {"root", "namespaces and mounts are root's", TRUE, root ? TRUE : FALSE},
        {"a runtime directory that can be written (/run/zarnel)", "the lock could not be taken",
         TRUE, dir ? TRUE : FALSE}};
    znRequirement next = {};
    for (std::size_t i = 0; znRequirementGet(i, &next) != FALSE; i++)
        all.push_back(next);
    return all;
}

} // namespace

bool print_requirements()
{
    bool all = true;
    for (const znRequirement& requirement : requirements()) {
        const bool met = requirement.met != FALSE;
        const bool needed = requirement.needed != FALSE;
        all = all && (met || !needed);
        if (met)
            std::printf("yes  %s\n", requirement.text);
        else
            std::printf("no   %s%s: %s\n", requirement.text, needed ? "" : " (optional)",
                        requirement.without);
    }
    return std::fflush(stdout) == 0 && all;
}

bool meets_requirements()
{
    bool all = true;
    for (const znRequirement& requirement : requirements())
        if (requirement.needed != FALSE && requirement.met == FALSE) {
            log(Level::kError, "needed and not there: %s: %s", requirement.text,
                requirement.without);
            all = false;
        }
    return all;
}

} // namespace zncd
