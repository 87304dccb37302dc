// engine_subgroup.cpp - the control groups that a further program of a container enters: that of
// the container, or groups below it.
#include "engine_cgroup.hpp"

#include "cgroup/cgroup.hpp"
#include "cgroup/cgroup_file.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace zn {
namespace {

using znc::List;
using znc::Text;

constexpr char kEntry[] = "cgroup.procs";

// "controller[,controller]:path" or "path".
struct Subgroup {
    explicit Subgroup(std::string_view text)
    {
        const std::size_t colon = text.find(':');
        if (colon != text.npos)
            controllers = text.substr(0, colon);
        path = text.substr(colon != text.npos ? colon + 1 : 0);
        isForAll = colon == text.npos;
    }
    std::string_view controllers;
    std::string_view path;
    bool isForAll;
};

// Whether the test is true for one of the parts of the text.
template <class Test> bool any_part(std::string_view text, char separator, Test test)
{
    for (;;) {
        const std::string_view one = text.substr(0, text.find(separator));
        if (test(one))
            return true;
        if (one.size() == text.size())
            return false;
        text.remove_prefix(one.size() + 1);
    }
}

bool has_word(std::string_view list, std::string_view word)
{
    return any_part(list, ',', [&](std::string_view one) { return one == word; });
}

bool leads_above(std::string_view path)
{
    return any_part(path, '/', [](std::string_view one) { return one == ".."; });
}

bool is_for(const Subgroup& subgroup, std::string_view hierarchy)
{
    return subgroup.isForAll || any_part(subgroup.controllers, ',', [&](std::string_view one) {
               return has_word(hierarchy, one);
           });
}

bool is_known(std::string_view controller, const List<GroupDirectory>& directories)
{
    return !controller.empty() &&
           std::any_of(directories.begin(), directories.end(), [&](const GroupDirectory& one) {
               return has_word(one.name.get(), controller);
           });
}

// Refuses what is no path below the group, and controllers without a hierarchy.
int check(const Subgroup& subgroup, const List<GroupDirectory>& directories, Reason& said)
{
    if (leads_above(subgroup.path))
        return said.say(EINVAL, "--cgroup: %.*s is not a sub cgroup path",
                        static_cast<int>(subgroup.path.size()), subgroup.path.data());
    const bool isWrong =
        !subgroup.isForAll && any_part(subgroup.controllers, ',', [&](std::string_view one) {
            return !is_known(one, directories);
        });
    return isWrong ? said.say(EINVAL, "--cgroup: unknown controller in \"%.*s\"",
                              static_cast<int>(subgroup.controllers.size()),
                              subgroup.controllers.data())
                   : 0;
}

// The entry of one hierarchy: that of the last subgroup that is for it.
int add_entry(const GroupDirectory& directory, char* const* subgroups, List<Text>& entries,
              Reason& said)
{
    std::string_view below;
    for (char* const* at = subgroups; at != nullptr && *at != nullptr; at++)
        if (const Subgroup one(*at); is_for(one, directory.name.get()))
            below = one.path;
    char path[PATH_MAX];
    const int len = std::snprintf(path, sizeof path, "%s/%.*s/%s", directory.path.get(),
                                  static_cast<int>(below.size()), below.data(), kEntry);
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof path)
        return said.say_errno(ENAMETOOLONG, "--cgroup");
    if (!below.empty() && ::access(path, F_OK) != 0)
        return said.say_errno(errno, "error adding pid to %s", path);
    Text entry = znc::copy_text(path);
    return entry && entries.append(std::move(entry)) != nullptr ? 0 : ENOMEM;
}

} // namespace

int engine_cgroup_entries(const char* group, char* const* subgroups, List<Text>& entries,
                          Reason& said)
{
    if (*group == '\0')
        return subgroups == nullptr
                   ? 0
                   : said.say(ENOTSUP, "--cgroup: the container has no control group");
    List<GroupDirectory> directories;
    int error = cgroup_directories(group, directories);
    for (char* const* at = subgroups; error == 0 && at != nullptr && *at != nullptr; at++)
        error = check(Subgroup(*at), directories, said);
    for (const GroupDirectory& directory : directories)
        if (error == 0)
            error = add_entry(directory, subgroups, entries, said);
    return error;
}

Text engine_cgroup_below(const char* group, pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d", pid);
    const znc::UniqueFd process(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!process)
        return nullptr;
    ControlLines lines(process.get(), "cgroup");
    const std::size_t len = std::strlen(group);
    while (const char* line = lines.next())
        if (std::strncmp(line, "0::", 3) == 0 && std::strncmp(line + 3, group, len) == 0 &&
            line[3 + len] == '/' && !leads_above(line + 3))
            return znc::copy_text(line + 3);
    return nullptr;
}

} // namespace zn
