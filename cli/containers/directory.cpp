#include "directory.hpp"

#include "front/escape.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
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
    std::optional<std::vector<std::string>> names = names_in(dir);
    if (!names)
        throw_error(path);
    std::sort(names->begin(), names->end());
    return *std::move(names);
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
