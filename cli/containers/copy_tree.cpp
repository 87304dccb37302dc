#include "copy_tree.hpp"

#include "base/owned.hpp"
#include "directory.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <vector>

#include "zarnel/fs.h"

namespace zncctl {
namespace {

std::string temporary_name(const std::string& name)
{
    std::random_device random;
    constexpr std::size_t kKept = 200; // so that the name is not too long
    return fmt::format(".{}.{:08x}{:08x}", name.substr(0, kKept), random(), random());
}

// A new file beside the one to replace, which is removed unless it is renamed.
class NewFile {
  public:
    NewFile(int dir, const std::string& name) : dir_(dir), temporary_(temporary_name(name))
    {
        file_.reset(::openat(dir_, temporary_.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file_)
            throw_error(name);
    }
    ~NewFile()
    {
        const znc::ErrnoSaver keep;
        if (!temporary_.empty())
            ::unlinkat(dir_, temporary_.c_str(), 0);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    [[nodiscard]] int fd() const { return file_.get(); }

    void take_name(const std::string& name)
    {
        if (file_.close_checked() != 0 ||
            ::renameat(dir_, temporary_.c_str(), dir_, name.c_str()) != 0)
            throw_error(name);
        temporary_.clear();
    }

  private:
    int dir_;
    std::string temporary_;
    znc::UniqueFd file_;
};

// At most as many bytes as there are now: the source may grow for ever.
void copy_bytes(int from, int to, off_t size, const std::string& name)
{
    std::array<char, 65536> buffer{};
    while (size > 0) {
        const auto most = std::min<off_t>(size, static_cast<off_t>(buffer.size()));
        const ssize_t n = ::read(from, buffer.data(), static_cast<std::size_t>(most));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 ||
            !write_all(to, {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0))}))
            throw_error(name);
        if (n == 0)
            return;
        size -= n;
    }
}

} // namespace

void TreeCopy::set_attributes(int file, const struct stat& st, const std::string& name) const
{
    const std::array<timespec, 2> times = {st.st_atim, st.st_mtim};
    // The owner first: that would clear bits of the mode.
    if ((owner_ && ::fchown(file, owner_->uid, owner_->gid) != 0) ||
        ::fchmod(file, st.st_mode & 0777U) != 0 || ::futimens(file, times.data()) != 0)
        throw_error(name);
}

void TreeCopy::copy_file(int file, int to, const std::string& name) const
{
    struct stat st = {};
    if (::fstat(file, &st) != 0)
        throw_error(name);
    make_file(to, name, st, [&](int copy) { copy_bytes(file, copy, st.st_size, name); });
}

void TreeCopy::make_file(int to, const std::string& name, const struct stat& st,
                         const std::function<void(int)>& fill) const
{
    NewFile file(to, name);
    fill(file.fd());
    set_attributes(file.fd(), st, name);
    file.take_name(name);
}

void TreeCopy::copy_link(int from, int to, const std::string& name) const
{
    std::array<char, PATH_MAX> target{};
    if (::readlinkat(from, name.c_str(), target.data(), target.size() - 1) < 0)
        throw_error(name);
    make_link(target.data(), to, name);
}

void TreeCopy::make_link(const std::string& target, int to, const std::string& name) const
{
    if (::symlinkat(target.c_str(), to, name.c_str()) != 0 &&
        (errno != EEXIST || ::unlinkat(to, name.c_str(), 0) != 0 ||
         ::symlinkat(target.c_str(), to, name.c_str()) != 0))
        throw_error(name);
    if (owner_ && ::fchownat(to, name.c_str(), owner_->uid, owner_->gid, AT_SYMLINK_NOFOLLOW) != 0)
        throw_error(name);
}

void TreeCopy::copy_entry(int from, int to, const std::string& name, const std::string& path,
                          unsigned depth) const
{
    struct stat st = {};
    if (::fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        throw_error(path);
    if (S_ISLNK(st.st_mode))
        return copy_link(from, to, name);
    if (S_ISDIR(st.st_mode)) {
        const znc::UniqueFd dir = open_directory(from, name);
        if (!dir)
            throw_error(path);
        return copy_directory(dir.get(), to, name, path, depth + 1);
    }
    const znc::UniqueFd file(S_ISREG(st.st_mode) ? znFileOpenAt(from, name.c_str()) : -1);
    if (!file && (!S_ISREG(st.st_mode) || errno == EINVAL))
        throw std::runtime_error(fmt::format(
            "{}: it is a device, FIFO or socket, which is not copied", printable(path)));
    if (!file)
        throw_error(path);
    copy_file(file.get(), to, name);
}

void TreeCopy::copy_content(int from, int to, const std::string& path, unsigned depth) const
{
    check_depth(depth, path);
    for (const std::string& name : names_in(from, path))
        copy_entry(from, to, name, fmt::format("{}/{}", path, name), depth);
}

void TreeCopy::copy_directory(int from, int to, const std::string& name, const std::string& path,
                              unsigned depth) const
{
    struct stat st = {};
    if (::fstat(from, &st) != 0)
        throw_error(path);
    const bool made = ::mkdirat(to, name.c_str(), 0700) == 0;
    if (!made && errno != EEXIST)
        throw_error(name);
    const znc::UniqueFd dir = open_directory(to, name);
    if (!dir)
        throw_error(name);
    copy_content(from, dir.get(), path, depth);
    if (made)
        set_attributes(dir.get(), st, name);
}

} // namespace zncctl
