#include "copy_tree.hpp"

#include "base/failure.hpp"
#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "directory.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "stop_signals.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <random>
#include <stdexcept>
#include <sys/stat.h>

#include "zarnel/fs.h"

namespace zncctl {
namespace {

std::string temporary_name(const std::string& name)
{
    std::random_device random;
    constexpr std::size_t kKept = 200; // bytes of the name that are kept in the temporary one
    return fmt::format(".{}.{:08x}{:08x}", name.substr(0, kKept), random(), random());
}

// A new file beside the one to replace, which is removed unless it is renamed.
class NewFile : znc::NotCopied {
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

// Limit for files of size 0 that have data, such as those of procfs.
constexpr off_t kUnstatedMax = off_t{16} << 20U;

// Copies what is between two positions. Returns the position of the end, which is less than `end`
// only at the end of the file.
off_t copy_range(int from, int to, off_t at, off_t end, const std::string& name)
{
    std::array<char, 65536> buffer{};
    if (::lseek(to, at, SEEK_SET) < 0)
        throw_error(name);
    while (at < end) {
        check_stop();
        const auto most = std::min<off_t>(end - at, static_cast<off_t>(buffer.size()));
        const ssize_t n = ::pread(from, buffer.data(), static_cast<std::size_t>(most), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 ||
            !write_all(to, {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0))}))
            throw_error(name);
        if (n == 0)
            break;
        at += n;
    }
    return at;
}

// Copies at most as many bytes as the source has now, since it may grow for ever. Keeps holes:
// otherwise a container could fill the host's disk with a sparse file.
void copy_bytes(int from, int to, off_t size, const std::string& name)
{
    if (size == 0) {
        copy_range(from, to, 0, kUnstatedMax, name);
        return;
    }
    off_t end = 0;
    for (off_t at = 0; at < size; at = std::max(end, at)) {
        off_t data = ::lseek(from, at, SEEK_DATA);
        off_t hole = data < 0 ? -1 : ::lseek(from, data, SEEK_HOLE);
        if (data < 0 && errno == ENXIO) { // only a hole follows, or the file was truncated
            struct stat st = {};
            end = ::fstat(from, &st) == 0 ? std::min(size, st.st_size) : at;
            break;
        }
        if (data < 0 || hole <= data) { // the file system does not report holes
            data = at;
            hole = size;
        }
        const off_t wanted = std::min(hole, size);
        end = data >= size ? size : copy_range(from, to, data, wanted, name);
        if (end < wanted)
            break;
    }
    if (::ftruncate(to, end) != 0)
        throw_error(name);
}

bool is_mount_point(int dir, const std::string& name)
{
    const int mounted = znMountedAt(dir, name.c_str());
    if (mounted < 0)
        throw_error(name);
    return mounted == 1;
}

// Writes a file in place, which keeps its owner and mode.
void rewrite(int existing, const std::string& name, const FileContent& fill)
{
    const znc::UniqueFd file(
        ::open(descriptor_path(existing).c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file)
        throw_error(name);
    fill(file.get());
}

} // namespace

bool remove_file(int dir, const std::string& name)
{
    if (is_mount_point(dir, name))
        return znc::fail(EBUSY, false);
    return ::unlinkat(dir, name.c_str(), 0) == 0;
}

void TreeCopy::set_attributes(int file, const struct stat& st, const std::string& name) const
{
    const std::array<timespec, 2> times = {st.st_atim, st.st_mtim};
    // Set the owner first: changing it clears bits of the mode.
    if ((owner_ && ::fchown(file, owner_->uid, owner_->gid) != 0) ||
        ::fchmod(file, st.st_mode & 0777U) != 0 || ::futimens(file, times.data()) != 0)
        throw_error(name);
}

void TreeCopy::copy_file(int file, int to, const std::string& name) const
{
    struct stat st = {};
    if (::fstat(file, &st) != 0)
        throw_error(name);
    if (is_mount_point(to, name)) {
        const znc::UniqueFd mounted(znFileOpenAt(to, name.c_str()));
        if (!mounted)
            throw_error(name);
        return rewrite_file(file, mounted.get(), name);
    }
    make_file(to, name, st, [&](int copy) { copy_bytes(file, copy, st.st_size, name); });
}

void TreeCopy::make_file(int to, const std::string& name, const struct stat& st,
                         const FileContent& fill) const
{
    if (is_mount_point(to, name)) {
        const znc::UniqueFd mounted(znFileOpenAt(to, name.c_str()));
        if (!mounted)
            throw_error(name);
        return rewrite(mounted.get(), name, fill);
    }
    NewFile file(to, name);
    fill(file.fd());
    set_attributes(file.fd(), st, name);
    file.take_name(name);
}

void TreeCopy::rewrite_file(int file, int existing, const std::string& name)
{
    struct stat st = {};
    struct stat old = {};
    if (::fstat(file, &st) != 0 || ::fstat(existing, &old) != 0)
        throw_error(name);
    if (st.st_dev == old.st_dev && st.st_ino == old.st_ino)
        throw std::runtime_error(
            fmt::format("{}: source and destination are the same file", printable(name)));
    rewrite(existing, name, [&](int to) { copy_bytes(file, to, st.st_size, name); });
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
        (errno != EEXIST || !remove_file(to, name) ||
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
