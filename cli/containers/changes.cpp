#include "changes.hpp"

#include "directory.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>

namespace zncctl {
namespace {

// A directory at the same place in the three trees.
struct Level {
    int upper;
    int lower; // -1: the lower tree has no directory here
    int merged;
    const std::string& path; // "" for the root
    unsigned depth;
};

// Made by the runtime, not by the container's program.
bool is_for_mounts(std::string_view path)
{
    constexpr std::array<std::string_view, 7> kPaths = {
        "/dev", "/etc/hostname", "/etc/hosts", "/etc/resolv.conf", "/proc", "/run", "/sys"};
    return std::find(kPaths.begin(), kPaths.end(), path) != kPaths.end();
}

bool exists(int dir, const std::string& name)
{
    struct stat st = {};
    return dir >= 0 && ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

znc::UniqueFd open_if_directory(int dir, const std::string& name)
{
    return dir >= 0 ? open_directory(dir, name) : znc::UniqueFd();
}

// Overlayfs marks a deleted name by a character device with the number 0:0. A container cannot
// create such a device in its root.
bool is_whiteout(const struct stat& st)
{
    return S_ISCHR(st.st_mode) && st.st_rdev == 0;
}

class Comparison {
  public:
    void add_directory(const Level& level)
    {
        check_depth(level.depth, level.path);
        const std::vector<std::string> names = names_in(level.upper, level.path);
        for (const std::string& name : names)
            add(level, name, fmt::format("{}/{}", level.path, name));
        if (level.lower >= 0)
            add_hidden(level, names);
    }

    std::vector<Change> take()
    {
        std::sort(changes_.begin(), changes_.end(),
                  [](const Change& a, const Change& b) { return a.path < b.path; });
        return std::move(changes_);
    }

  private:
    void add(const Level& level, const std::string& name, const std::string& path)
    {
        struct stat st = {};
        if (::fstatat(level.upper, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (!is_replaced(errno))
                throw_error(path);
            return;
        }
        const bool below = exists(level.lower, name);
        if (is_whiteout(st)) {
            if (below)
                note(ChangeKind::kDeleted, path);
            return;
        }
        note(below ? ChangeKind::kChanged : ChangeKind::kAdded, path);
        if (!S_ISDIR(st.st_mode))
            return;
        const znc::UniqueFd upper = open_directory(level.upper, name);
        if (!upper && is_replaced(errno))
            return;
        if (!upper)
            throw_error(path);
        const znc::UniqueFd lower = open_if_directory(level.lower, name);
        const znc::UniqueFd merged = open_if_directory(level.merged, name);
        add_directory({upper.get(), lower.get(), merged.get(), path, level.depth + 1});
    }

    // A directory that was deleted and created again hides everything in the lower directory,
    // without a whiteout for each name.
    void add_hidden(const Level& level, const std::vector<std::string>& in_upper)
    {
        for (const std::string& name : names_in(level.lower, level.path))
            if (!std::binary_search(in_upper.begin(), in_upper.end(), name) && level.merged >= 0 &&
                !exists(level.merged, name))
                note(ChangeKind::kDeleted, fmt::format("{}/{}", level.path, name));
    }

    void note(ChangeKind kind, std::string path)
    {
        if (!is_for_mounts(path))
            changes_.push_back({kind, std::move(path)});
    }

    std::vector<Change> changes_;
};

} // namespace

std::vector<Change> changes_of(const RootParts& root)
{
    Comparison comparison;
    const std::string path;
    comparison.add_directory({root.upper.get(), root.lower.get(), root.merged.get(), path, 0});
    return comparison.take();
}

} // namespace zncctl
