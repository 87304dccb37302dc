#include "directory.hpp"

#include "front/escape.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

void check_depth(unsigned depth, const std::string& path)
{
    if (depth > kDepthMax)
        throw std::runtime_error(fmt::format("{}: it has more than {} levels of directories",
                                             printable(first_characters(path, 100)), kDepthMax));
}

std::vector<std::string> names_in(int dir, const std::string& path)
{
    struct Close {
        void operator()(DIR* open) const { ::closedir(open); }
    };
    znc::UniqueFd own(::openat(dir, ".", kDirFlags));
    const std::unique_ptr<DIR, Close> entries(own ? ::fdopendir(own.get()) : nullptr);
    if (entries == nullptr)
        throw_error(path);
    static_cast<void>(own.release()); // closedir() closes it
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) { // NOLINT(concurrency-mt-unsafe)
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    if (errno != 0)
        throw_error(path);
    std::sort(names.begin(), names.end());
    return names;
}

znc::UniqueFd open_directory(int dir, const std::string& name)
{
    return znc::UniqueFd(::openat(dir, name.c_str(), kDirFlags));
}

bool is_replaced(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

} // namespace zncctl
