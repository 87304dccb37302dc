#include "program_file.hpp"

#include "front/output.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {
namespace {

// Resolves a path, including symbolic links, inside a root directory.
class Walk {
  public:
    explicit Walk(int root) { dirs_.emplace_back(::fcntl(root, F_DUPFD_CLOEXEC, 3)); }

    // Returns 0 and the mode of the file that `path` names, or an errno value.
    int mode_of(const std::string& path, mode_t& mode)
    {
        mode = S_IFDIR;
        push(path);
        while (!remaining_.empty()) {
            const std::string part = std::move(remaining_.back());
            remaining_.pop_back();
            if (part == "..")
                dirs_.resize(std::max<std::size_t>(dirs_.size() - 1, 1));
            else if (const int error = step(part, mode); error != 0)
                return error;
        }
        return 0;
    }

  private:
    static constexpr int kLinksMax = 40;

    // Pushes the components of a path in reverse order, so that the first one is popped first.
    void push(std::string_view path)
    {
        while (!path.empty()) {
            const std::size_t slash = path.rfind('/');
            const std::size_t start = slash == path.npos ? 0 : slash + 1;
            if (const std::string_view part = path.substr(start); !part.empty() && part != ".")
                remaining_.emplace_back(part);
            path = path.substr(0, slash == path.npos ? 0 : slash);
        }
    }

    int step(const std::string& part, mode_t& mode)
    {
        struct stat st = {};
        if (!S_ISDIR(mode))
            return ENOTDIR;
        if (::fstatat(dirs_.back().get(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return errno;
        if (S_ISLNK(st.st_mode))
            return follow(part);
        mode = st.st_mode;
        if (S_ISDIR(mode))
            dirs_.emplace_back(::openat(dirs_.back().get(), part.c_str(),
                                        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return dirs_.back() ? 0 : errno;
    }

    int follow(const std::string& part)
    {
        std::array<char, 4096> target{};
        const ssize_t len =
            ::readlinkat(dirs_.back().get(), part.c_str(), target.data(), target.size());
        if (len <= 0 || ++links_ > kLinksMax)
            return len < 0 ? errno : ELOOP;
        const std::string_view text(target.data(), static_cast<std::size_t>(len));
        if (text.starts_with('/'))
            dirs_.resize(1);
        push(text);
        return 0;
    }

    std::vector<znc::UniqueFd> dirs_; // the directories from the root to the current one
    std::vector<std::string> remaining_;
    int links_ = 0;
};

// Why a program with this file could not be started; `error` and `mode` are results of
// file_mode_in_root().
ProgramFault file_fault(const std::string& path, int error, mode_t mode)
{
    const auto fault = [&](const char* why, int status) {
        return ProgramFault{fmt::format("{}: {}", path, why), status};
    };
    if (error == ENOENT || error == ENOTDIR)
        return fault("there is no such program in the container's root", kExitNoProgram);
    if (error != 0)
        return fault("it cannot be examined in the container's root", kExitCannotInvoke);
    if (!S_ISREG(mode))
        return fault("it is not a regular file", kExitCannotInvoke);
    if ((mode & 0111) == 0)
        return fault("it is not executable", kExitCannotInvoke);
    return fault("it cannot be executed: its interpreter or a library may be missing, its format "
                 "unknown, the user not allowed to, or a resource limit too low",
                 kExitCannotInvoke);
}

// The paths that a command may stand for.
std::vector<std::string> candidates(const WantedProgram& wanted)
{
    std::vector<std::string> paths = {absolute_path(wanted.directory, wanted.command)};
    if (wanted.command.find('/') != wanted.command.npos || wanted.search == nullptr)
        return paths;
    std::string_view directories = wanted.search;
    while (!directories.empty()) {
        const std::size_t end = std::min(directories.find(':'), directories.size());
        if (end != 0) // an empty entry is the working directory
            paths.push_back(
                absolute_path(wanted.directory,
                              fmt::format("{}/{}", directories.substr(0, end), wanted.command)));
        directories.remove_prefix(std::min(end + 1, directories.size()));
    }
    return paths;
}

} // namespace

int file_mode_in_root(int root, const std::string& path, mode_t& mode)
{
    return Walk(root).mode_of(path, mode);
}

std::string absolute_path(const std::string& directory, const std::string& path)
{
    return path.starts_with('/')
               ? path
               : fmt::format("{}{}{}", directory, directory.ends_with('/') ? "" : "/", path);
}

ProgramFault program_fault(int root, const WantedProgram& wanted)
{
    const std::vector<std::string> paths = candidates(wanted);
    mode_t mode = 0;
    for (const std::string& path : paths)
        if (const int error = file_mode_in_root(root, path, mode);
            error == 0 && (paths.size() == 1 || S_ISREG(mode)))
            return file_fault(path, error, mode);
    if (paths.size() == 1)
        return file_fault(paths[0], file_mode_in_root(root, paths[0], mode), mode);
    return {fmt::format("{}: there is no such program in the container's PATH", wanted.command),
            kExitNoProgram};
}

} // namespace zncctl
