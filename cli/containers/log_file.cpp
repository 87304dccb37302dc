#include "log_file.hpp"

#include "front/files.hpp"
#include "front/record.hpp"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace zncctl {
namespace {

znc::UniqueFd open_log(int dir, const char* name)
{
    return znc::UniqueFd(::openat(dir, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
}

} // namespace

LogFile::LogFile(int dir, std::size_t max) : dir_(dir), max_(max)
{
    open_new();
}

void LogFile::open_new()
{
    file_.reset(::openat(dir_, kLogName,
                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
    size_ = 0;
}

void LogFile::append(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (size_ >= max_) {
            ::renameat(dir_, kLogName, dir_, kOldLogName);
            open_new();
        }
        const std::string_view part = bytes.substr(0, max_ - size_);
        static_cast<void>(write_all(file_.get(), part));
        size_ += part.size();
        bytes.remove_prefix(part.size());
    }
}

LogReader::LogReader(int dir, bool at_end) : dir_(dir)
{
    if (!at_end)
        file_ = open_log(dir, kOldLogName);
    if (!file_)
        file_ = open_log(dir, kLogName);
    if (at_end && file_)
        ::lseek(file_.get(), 0, SEEK_END);
}

std::string LogReader::read_to_end()
{
    std::string text;
    std::array<char, 65536> buffer{};
    for (ssize_t n = 1; file_ && n > 0;) {
        n = ::read(file_.get(), buffer.data(), buffer.size());
        if (n > 0)
            text.append(buffer.data(), static_cast<std::size_t>(n));
    }
    return text;
}

// The log may have been rotated: a renamed file is not written any more, but may have got more
// bytes before. Read the old file to its end before switching to the new one.
std::string LogReader::read()
{
    std::string text;
    for (;;) {
        znc::UniqueFd newest = open_log(dir_, kLogName);
        text += read_to_end();
        struct stat current_stat = {};
        struct stat newest_stat = {};
        if (!newest ||
            (file_ && ::fstat(file_.get(), &current_stat) == 0 &&
             ::fstat(newest.get(), &newest_stat) == 0 && current_stat.st_ino == newest_stat.st_ino))
            return text;
        file_ = std::move(newest);
    }
}

} // namespace zncctl
