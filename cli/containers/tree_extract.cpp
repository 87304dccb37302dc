#include "tree_extract.hpp"

#include "directory.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "zarnel/fs.h"

namespace zncctl {
namespace {

// A name in the archive without "." and empty components. Refuses "..".
std::string clean(const std::string& path)
{
    std::string cleaned;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view component = std::string_view(path).substr(start, end - start);
        start = end + 1;
        if (component == "..")
            throw std::runtime_error(
                fmt::format("{}: its name has a component \"..\"", printable(path)));
        if (component.empty() || component == ".")
            continue;
        if (!cleaned.empty())
            cleaned += '/';
        cleaned += component;
    }
    return cleaned;
}

std::string parent_path(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "" : path.substr(0, slash);
}

std::string last_name(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

struct stat attributes_of(const TarMember& member)
{
    struct stat st = {};
    st.st_mode = member.mode;
    st.st_mtim.tv_sec = member.mtime;
    st.st_atim = st.st_mtim;
    return st;
}

} // namespace

void TreeExtract::extract(TarReader& archive)
{
    while (const auto member = archive.next())
        add(archive, *member);
    archive.finish();
    // If the container has replaced a component of the path, it still leads to a directory inside
    // the root.
    for (auto it = pending_.rbegin(); it != pending_.rend(); ++it)
        if (const znc::UniqueFd dir = open(it->path); dir)
            copy_.set_attributes(dir.get(), it->st, it->path);
}

void TreeExtract::add(TarReader& archive, const TarMember& member)
{
    const std::string path = clean(member.path);
    const struct stat st = attributes_of(member);
    if (path.empty() && member.type == TarType::kDirectory)
        return; // the member is the directory itself, which is kept
    if (path.empty())
        throw std::runtime_error("a member of the archive has no name");
    switch (member.type) {
    case TarType::kDirectory:
        return add_directory(path, st);
    case TarType::kSymbolicLink:
        return copy_.make_link(member.target, parent_of(path).get(), last_name(path));
    case TarType::kHardLink:
        return add_hard_link(clean(member.target), path);
    case TarType::kFile:
        return copy_.make_file(parent_of(path).get(), last_name(path), st,
                               [&](int file) { archive.copy_data(file); });
    case TarType::kFifo:
        break;
    }
    throw std::runtime_error(fmt::format("{}: it is a FIFO, which is not copied", printable(path)));
}

void TreeExtract::add_directory(const std::string& path, const struct stat& st)
{
    if (open(path)) // a directory, or a symbolic link to one, exists
        return;
    if (errno != ENOENT)
        throw_error(path);
    make_directory(path);
    pending_.push_back({path, st});
}

void TreeExtract::add_hard_link(const std::string& target, const std::string& path)
{
    const znc::UniqueFd from = open(parent_path(target));
    if (!from)
        throw_error(target);
    const znc::UniqueFd to = parent_of(path);
    const std::string old_name = last_name(target);
    const std::string name = last_name(path);
    if (::linkat(from.get(), old_name.c_str(), to.get(), name.c_str(), 0) != 0 &&
        (errno != EEXIST || !remove_file(to.get(), name) ||
         ::linkat(from.get(), old_name.c_str(), to.get(), name.c_str(), 0) != 0))
        throw_error(path);
}

// A directory below the one to extract into. Links are followed inside the root of the container.
znc::UniqueFd TreeExtract::open(const std::string& path) const
{
    return znc::UniqueFd(znDirOpenInRoot(root_, fmt::format("{}/{}", directory_, path).c_str()));
}

znc::UniqueFd TreeExtract::parent_of(const std::string& path)
{
    const std::string parent = parent_path(path);
    znc::UniqueFd dir = open(parent);
    if (!dir && errno == ENOENT && !parent.empty())
        return make_directory(parent);
    if (!dir)
        throw_error(parent.empty() ? directory_ : parent);
    return dir;
}

// Creates a directory and its missing parents.
znc::UniqueFd TreeExtract::make_directory(const std::string& path)
{
    struct stat st = {};
    st.st_mode = 0755;
    ::clock_gettime(CLOCK_REALTIME, &st.st_mtim);
    st.st_atim = st.st_mtim;
    const znc::UniqueFd parent = parent_of(path);
    const std::string name = last_name(path);
    if (::mkdirat(parent.get(), name.c_str(), 0700) != 0)
        throw_error(path);
    znc::UniqueFd dir = open_directory(parent.get(), name);
    if (!dir)
        throw_error(path);
    copy_.set_attributes(dir.get(), st, path);
    return dir;
}

} // namespace zncctl
