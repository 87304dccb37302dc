#include "tree_archive.hpp"

#include "directory.hpp"
#include "front/files.hpp"
#include "front/output.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "zarnel/fs.h"

namespace zncctl {
namespace {

struct stat status_of_open(int fd, const std::string& path)
{
    struct stat st = {};
    if (::fstat(fd, &st) != 0)
        throw_error(path);
    return st;
}

} // namespace

TarMember TreeArchive::member_of(const struct stat& st, const std::string& path, TarType type)
{
    TarMember member;
    member.path = path;
    member.type = type;
    member.mode = st.st_mode & 07777U;
    member.uid = st.st_uid;
    member.gid = st.st_gid;
    member.mtime = st.st_mtim.tv_sec;
    if (owner_of_) {
        const auto [known, is_new] = owners_.try_emplace({st.st_uid, st.st_gid});
        if (is_new)
            known->second = owner_of_({st.st_uid, st.st_gid});
        member.uid = known->second.uid;
        member.gid = known->second.gid;
    }
    return member;
}

void TreeArchive::add_content(int dir, const std::string& path, unsigned depth)
{
    check_depth(depth, path);
    for (const std::string& name : names_in(dir, path))
        add_entry(dir, name, path + name, depth);
}

void TreeArchive::add_directory(int dir, const std::string& path)
{
    writer_.add(member_of(status_of_open(dir, path), path, TarType::kDirectory));
}

void TreeArchive::add_file(int file, const std::string& path)
{
    const struct stat st = status_of_open(file, path);
    if (st.st_nlink > 1 && add_hard_link(path, st))
        return;
    TarMember member = member_of(st, path, TarType::kFile);
    member.size = static_cast<std::uint64_t>(st.st_size);
    writer_.add(member);
    if (!writer_.add_data(file))
        shrunk_++;
}

// True if the file was added before, under another name.
bool TreeArchive::add_hard_link(const std::string& path, const struct stat& st)
{
    const auto [first, added] = linked_.try_emplace({st.st_dev, st.st_ino}, path);
    if (added)
        return false;
    TarMember member = member_of(st, path, TarType::kHardLink);
    member.target = first->second;
    writer_.add(member);
    return true;
}

void TreeArchive::add_link(int dir, const std::string& name, const std::string& path,
                           const struct stat& st)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(dir, name.c_str(), target.data(), target.size() - 1);
    if (length < 0 && (is_replaced(errno) || errno == EINVAL))
        return;
    if (length < 0)
        throw_error(path);
    TarMember member = member_of(st, path, TarType::kSymbolicLink);
    member.target.assign(target.data(), static_cast<std::size_t>(length));
    writer_.add(member);
}

void TreeArchive::add_subdirectory(int dir, const std::string& name, const std::string& path,
                                   unsigned depth)
{
    const znc::UniqueFd sub = open_directory(dir, name);
    if (!sub && is_replaced(errno))
        return;
    if (!sub)
        throw_error(path);
    add_directory(sub.get(), path + "/");
    add_content(sub.get(), path + "/", depth + 1);
}

void TreeArchive::add_entry(int dir, const std::string& name, const std::string& path,
                            unsigned depth)
{
    struct stat st = {};
    if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (is_replaced(errno))
            return;
        throw_error(path);
    }
    if (S_ISDIR(st.st_mode))
        return add_subdirectory(dir, name, path, depth);
    if (S_ISLNK(st.st_mode))
        return add_link(dir, name, path, st);
    if (S_ISFIFO(st.st_mode))
        return writer_.add(member_of(st, path, TarType::kFifo));
    if (!S_ISREG(st.st_mode)) {
        left_out_ += S_ISSOCK(st.st_mode) ? 0 : 1; // no archive can contain a socket
        return;
    }
    const znc::UniqueFd file(znFileOpenAt(dir, name.c_str()));
    if (file)
        return add_file(file.get(), path);
    if (!is_replaced(errno) && errno != EISDIR && errno != EINVAL)
        throw_error(path);
}

void TreeArchive::finish(const std::string& id)
{
    writer_.finish();
    if (left_out_ != 0)
        print_warning(fmt::format("{}: {} devices were left out", id, left_out_));
    if (shrunk_ != 0)
        print_warning(fmt::format("{}: {} files became shorter while they were read, and are "
                                  "completed with zeros",
                                  id, shrunk_));
}

} // namespace zncctl
