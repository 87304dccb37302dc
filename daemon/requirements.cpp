#include "requirements.hpp"

#include "log.hpp"
#include "runtime_dir.hpp"
#include "zarnel/path_trust.h"
#include "zarnel/requirement.h"
#include "zncPath.hpp"
#include "zncontainer.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace zncd {
namespace {

// What is wrong with the directories of the storage base; empty if nothing is.
std::string base_fault()
{
    for (const unsigned type : {ZNC_LAYER_PATH, ZNC_FLATTENED_PATH, ZNC_CONTAINERS_PATH}) {
        std::array<char, 1024> path{};
        znPathTrust trust = {};
        if (znc::base_path_text(path.data(), path.size(), type) == 0)
            return "the path is too long";
        if (znPathTrusted(path.data(), &trust) != OK)
            return trust.fault[0] != '\0' ? trust.fault
                                          : path.data() + std::string(" is not a valid path");
    }
    return "";
}

// The daemon's requirements and those of the platform. The result refers to the text in `fault`.
std::vector<znRequirement> requirements(std::string& fault)
{
    fault = base_fault();
    const bool root = ::geteuid() == 0;
    const bool dir =
        ::access(ZN_RUNTIME_DIR, W_OK) == 0 || (errno == ENOENT && ::access("/run", W_OK) == 0);
    std::vector<znRequirement> all = {
        {"root", "namespaces and mounts require it", TRUE, root ? TRUE : FALSE},
        {"a writable runtime directory (" ZN_RUNTIME_DIR ")",
         "the daemon's lock could not be created", TRUE, dir ? TRUE : FALSE},
        {"a storage base that no other user can write to (ZNC_BASE)", fault.c_str(), TRUE,
         fault.empty() ? TRUE : FALSE}};
    znRequirement next = {};
    for (std::size_t i = 0; znRequirementGet(i, &next) != FALSE; i++)
        all.push_back(next);
    return all;
}

} // namespace

bool print_requirements()
{
    bool all = true;
    std::string fault;
    for (const znRequirement& requirement : requirements(fault)) {
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
    std::string fault;
    for (const znRequirement& requirement : requirements(fault))
        if (requirement.needed != FALSE && requirement.met == FALSE) {
            log(Level::kError, "missing requirement: %s: %s", requirement.text,
                requirement.without);
            all = false;
        }
    return all;
}

} // namespace zncd
