#include "directory_tree.hpp"

#include "front/files.hpp"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

namespace zncimport {
namespace {

constexpr std::size_t kPart = std::size_t{256} << 10U;

bool same_file(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino &&
           (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

bool same_time(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

Kind kind_of(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return Kind::kFile;
    case S_IFDIR:
        return Kind::kDirectory;
    case S_IFLNK:
        return Kind::kSymlink;
    case S_IFCHR:
        return Kind::kCharDevice;
    case S_IFBLK:
        return Kind::kBlockDevice;
    case S_IFIFO:
        return Kind::kFifo;
    default:
        return Kind::kOther;
    }
}

class TreeReader {
  public:
    TreeReader(Spool& spool, Budget& budget) : spool_(spool), budget_(budget), part_(kPart) {}

    void read(int directory, const std::string& path, std::uint64_t depth);
    std::vector<Entry> take() { return std::move(entries_); }

  private:
    void add(int directory, const std::string& name, const std::string& path, std::uint64_t depth);
    znc::UniqueFd open_same(int directory, const std::string& name, const std::string& path,
                            const struct stat& expected) const;
    void read_file(int file, Entry& entry, const struct stat& before);

    Spool& spool_;
    Budget& budget_;
    std::vector<std::byte> part_;
    std::vector<Entry> entries_;
    // the first path of each file that has several links
    std::map<std::pair<dev_t, ino_t>, std::string> linked_;
};

std::vector<std::string> sorted_names_in(int directory, const std::string& path)
{
    std::optional<std::vector<std::string>> names = zncctl::names_in(directory);
    if (!names)
        throw Failure(path, zncctl::error_text());
    std::sort(names->begin(), names->end());
    return *std::move(names);
}

std::vector<std::string> xattrs_of(int file, const std::string& path)
{
    const ssize_t size = ::flistxattr(file, nullptr, 0);
    if (size <= 0 && (size == 0 || errno == ENOTSUP))
        return {};
    std::string list(static_cast<std::size_t>(std::max<ssize_t>(size, 0)), '\0');
    const ssize_t got = size < 0 ? -1 : ::flistxattr(file, list.data(), list.size());
    if (got < 0)
        throw Failure(path, zncctl::error_text());
    std::vector<std::string> names;
    list.resize(static_cast<std::size_t>(got));
    for (std::size_t at = 0; at < list.size(); at += names.back().size() + 1)
        names.emplace_back(list.c_str() + at);
    std::sort(names.begin(), names.end());
    return names;
}

std::string target_of(int directory, const std::string& name, const std::string& path)
{
    std::string target(4096, '\0');
    const ssize_t got = ::readlinkat(directory, name.c_str(), target.data(), target.size());
    if (got < 0)
        throw Failure(path, zncctl::error_text());
    target.resize(static_cast<std::size_t>(got));
    return target;
}

Member member_of(const std::string& path, const struct stat& status)
{
    Member member;
    member.path = path;
    member.kind = kind_of(status.st_mode);
    member.mode = status.st_mode & 07777U;
    member.uid = status.st_uid;
    member.gid = status.st_gid;
    member.mtime = status.st_mtim.tv_sec;
    if (member.kind == Kind::kCharDevice || member.kind == Kind::kBlockDevice) {
        member.major = major(status.st_rdev);
        member.minor = minor(status.st_rdev);
    }
    return member;
}

void TreeReader::read(int directory, const std::string& path, std::uint64_t depth)
{
    if (depth > budget_.limits().depth)
        throw Failure(path, "is too deep in the tree (see --max-depth)");
    const std::string above = path.empty() ? "" : path + "/";
    for (const std::string& name : sorted_names_in(directory, path))
        add(directory, name, above + name, depth);
}

void TreeReader::add(int directory, const std::string& name, const std::string& path,
                     std::uint64_t depth)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Failure(path, zncctl::error_text());
    if (S_ISSOCK(status.st_mode))
        return;
    budget_.take_entry(path);
    Entry entry;
    entry.member = member_of(path, status);
    if (!S_ISDIR(status.st_mode) && status.st_nlink > 1) {
        const auto [first, fresh] = linked_.try_emplace({status.st_dev, status.st_ino}, path);
        if (!fresh) {
            entry.member.kind = Kind::kHardlink;
            entry.member.target = first->second;
        }
    }
    znc::UniqueFd opened;
    if (entry.member.kind == Kind::kSymlink)
        entry.member.target = target_of(directory, name, path);
    if (entry.member.kind == Kind::kFile || entry.member.kind == Kind::kDirectory) {
        opened = open_same(directory, name, path, status);
        entry.member.xattrs = xattrs_of(opened.get(), path);
    }
    if (entry.member.kind == Kind::kFile)
        read_file(opened.get(), entry, status);
    entries_.push_back(std::move(entry));
    if (S_ISDIR(status.st_mode))
        read(opened.get(), path, depth + 1);
}

znc::UniqueFd TreeReader::open_same(int directory, const std::string& name, const std::string& path,
                                    const struct stat& expected) const
{
    znc::UniqueFd file(::openat(directory, name.c_str(),
                                O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0)
        throw Failure(path, zncctl::error_text());
    if (!same_file(status, expected))
        throw Failure(path, "became another file while it was read");
    return file;
}

void TreeReader::read_file(int file, Entry& entry, const struct stat& before)
{
    entry.data.offset = spool_.size();
    ssize_t got = 0;
    while ((got = ::read(file, part_.data(), part_.size())) != 0) {
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw Failure(entry.member.path, zncctl::error_text());
        budget_.take_bytes(entry.member.path, static_cast<std::uint64_t>(got));
        spool_.append(std::span(part_).first(static_cast<std::size_t>(got)));
    }
    entry.data.size = spool_.size() - entry.data.offset;
    entry.member.size = entry.data.size;
    struct stat after = {};
    if (::fstat(file, &after) != 0)
        throw Failure(entry.member.path, zncctl::error_text());
    if (static_cast<std::uint64_t>(before.st_size) != entry.data.size ||
        !same_time(before.st_mtim, after.st_mtim) || !same_time(before.st_ctim, after.st_ctim))
        throw Failure(entry.member.path, "changed while it was read");
}

} // namespace

std::vector<Entry> read_directory(int fd, Spool& spool, Budget& budget)
{
    TreeReader reader(spool, budget);
    reader.read(fd, "", 1);
    return reader.take();
}

} // namespace zncimport
