#include "archive_copy.hpp"

#include "front/blob.hpp"
#include "front/files.hpp"
#include "image_store.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zncctl {
namespace {

znc::UniqueFd open_archive(const std::string& path)
{
    znc::UniqueFd file(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                   : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file)
        throw_error(path);
    return file;
}

// Reads `from` to its end, hashes it and, if `to` is not -1, writes it there.
std::string copy_and_hash(int from, int to, const std::string& name)
{
    znc::Digest digest;
    std::vector<char> part(std::size_t{1} << 20U);
    for (;;) {
        const ssize_t got = ::read(from, part.data(), part.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw_error(name);
        if (got == 0)
            return digest_text(digest);
        const auto count = static_cast<std::size_t>(got);
        digest.add(part.data(), count);
        if (to >= 0 && !write_all(to, {part.data(), count}))
            throw_error("the copy of the archive");
    }
}

// An unnamed file.
znc::UniqueFd new_file()
{
    const std::string area = image_area();
    znc::UniqueFd file(::open(area.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!file)
        throw_error(area);
    return file;
}

} // namespace

ArchiveCopy::ArchiveCopy(const std::string& path) : name_(path == "-" ? "standard input" : path)
{
    znc::UniqueFd from = open_archive(path);
    struct stat st = {};
    if (::fstat(from.get(), &st) != 0)
        throw_error(name_);
    if (S_ISDIR(st.st_mode) || S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))
        throw std::runtime_error(fmt::format("{}: it is not an archive", name_));
    const bool steady = S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
                        (st.st_mode & 022U) == 0 && ::lseek(from.get(), 0, SEEK_CUR) == 0;
    znc::UniqueFd copy = steady ? znc::UniqueFd() : new_file();
    digest_ = copy_and_hash(from.get(), copy.get(), name_);
    file_ = steady ? std::move(from) : std::move(copy);
}

int ArchiveCopy::fd() const
{
    if (::lseek(file_.get(), 0, SEEK_SET) != 0)
        throw_error("the archive");
    return file_.get();
}

} // namespace zncctl
