#include "systemd_name.hpp"

#include "context.hpp"
#include "front/words.hpp"

#include <array>

#include <fmt/format.h>

namespace zncrun {
namespace {

constexpr char kField[] = "linux.cgroupsPath";
constexpr std::size_t kUnitMax = 255;
// Without "@": there are no templates of slices and scopes.
constexpr char kUnitCharacters[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:-_.\\";

void check_unit(const std::string& unit)
{
    if (unit.size() > kUnitMax || unit.find_first_not_of(kUnitCharacters) != unit.npos)
        throw Failure(fmt::format("{}: {:?} cannot be the name of a systemd unit", kField, unit));
}

// The name without ".slice"; "-" is the root of all slices.
std::string slice_stem(const std::string& slice)
{
    constexpr std::string_view kEnd = ".slice";
    std::string stem = slice.ends_with(kEnd) ? slice.substr(0, slice.size() - kEnd.size()) : "";
    const bool isGood = stem == "-" || (!stem.empty() && !stem.starts_with('-') &&
                                        !stem.ends_with('-') && stem.find("--") == stem.npos);
    if (!isGood)
        throw Failure(fmt::format("{}: {:?} is not a systemd slice", kField, slice));
    return stem;
}

// systemd puts "_" before names that could be those of control files.
std::string group_name_of(const std::string& unit)
{
    constexpr std::array kControllers = {"cpu",   "cpuacct", "cpuset",  "io",
                                         "blkio", "memory",  "devices", "pids"};
    const bool isControlFile = unit.starts_with('_') || unit.starts_with('.') ||
                               unit.starts_with("cgroup.") ||
                               zncctl::is_among(unit.substr(0, unit.rfind('.')), kControllers);
    return isControlFile ? "_" + unit : unit;
}

} // namespace

ScopeName read_scope_name(const std::string& path, const std::string& slice,
                          const std::string& name)
{
    const auto parts = zncctl::split(path.empty() ? ":zncrun:" + name : path, ':');
    if (parts.size() != 3)
        throw Failure(fmt::format("{}: expected the form \"slice:prefix:name\" for systemd, got "
                                  "{:?}",
                                  kField, path));
    if (parts[2].empty())
        throw Failure(fmt::format("{}: {:?} names no scope", kField, path));
    if (parts[2].ends_with(".slice"))
        throw Failure(fmt::format("{}: {:?}: a container cannot be a slice", kField, parts[2]));
    ScopeName scope = {parts[0].empty() ? slice : parts[0],
                       (parts[1].empty() ? "" : parts[1] + "-") + parts[2] + ".scope"};
    check_unit(scope.slice);
    check_unit(scope.unit);
    slice_stem(scope.slice);
    return scope;
}

std::string scope_group(const std::string& root, const ScopeName& scope)
{
    const std::string stem = slice_stem(scope.slice);
    std::string group = root == "/" ? "" : root;
    for (std::size_t end = 0; stem != "-" && end != stem.npos;) {
        end = stem.find('-', end + 1);
        group += "/" + group_name_of(stem.substr(0, end) + ".slice");
    }
    return group + "/" + group_name_of(scope.unit);
}

} // namespace zncrun
