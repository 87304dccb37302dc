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

} // namespace

int file_mode_in_root(int root, const std::string& path, mode_t& mode)
{
    return Walk(root).mode_of(path, mode);
}

ProgramFault program_fault(const std::string& path, int error, mode_t mode)
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
    return fault("it cannot be executed; its interpreter may be missing or its format unknown",
                 kExitCannotInvoke);
}

} // namespace zncctl
