#include "log_file.hpp"

#include "front/files.hpp"
#include "front/record.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
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
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW | O_CLOEXEC;
    times_.reset(::openat(dir_, kLogTimesName, kFlags, 0600));
    file_.reset(::openat(dir_, kLogName, kFlags, 0600));
    size_ = 0;
    noted_ = 0;
}

// Called before the bytes themselves are written, so that a reader which finds them finds their
// time, too.
void LogFile::note_time()
{
    constexpr std::int64_t kNanoseconds = 1000000000;
    constexpr std::int64_t kMillisecond = 1000000;
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::int64_t time = now.tv_sec * kNanoseconds + now.tv_nsec;
    if (time / kMillisecond == noted_)
        return;
    noted_ = time / kMillisecond;
    const LogReader::Time entry = {size_, time};
    static_cast<void>(
        write_all(times_.get(), {reinterpret_cast<const char*>(&entry), sizeof entry}));
}

void LogFile::append(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (size_ >= max_) {
            ::renameat(dir_, kLogName, dir_, kOldLogName);
            ::renameat(dir_, kLogTimesName, dir_, kOldLogTimesName);
            open_new();
        }
        const std::string_view part = bytes.substr(0, max_ - size_);
        note_time();
        static_cast<void>(write_all(file_.get(), part));
        size_ += part.size();
        bytes.remove_prefix(part.size());
    }
}

LogReader::LogReader(int dir, bool at_end) : dir_(dir)
{
    if (!at_end) {
        file_ = open_log(dir, kOldLogName);
        open_times(kOldLogTimesName);
    }
    if (!file_) {
        file_ = open_log(dir, kLogName);
        open_times(kLogTimesName);
    }
    if (at_end && file_)
        ::lseek(file_.get(), 0, SEEK_END);
}

void LogReader::open_times(const char* name)
{
    times_ = open_log(dir_, name);
    next_.clear();
    last_ = {0, 0};
    offset_ = 0;
}

// The log may have been rotated: a renamed file is not written any more, but may have got more
// bytes before. Read the old file to its end before switching to the new one.
template <class Take> void LogReader::read_files(Take take)
{
    for (;;) {
        znc::UniqueFd newest = open_log(dir_, kLogName);
        take(file_ ? read_to_end(file_.get()) : "");
        struct stat current_stat = {};
        struct stat newest_stat = {};
        if (!newest ||
            (file_ && ::fstat(file_.get(), &current_stat) == 0 &&
             ::fstat(newest.get(), &newest_stat) == 0 && current_stat.st_ino == newest_stat.st_ino))
            return;
        file_ = std::move(newest);
        open_times(kLogTimesName);
    }
}

std::string LogReader::read()
{
    std::string all;
    read_files([&](std::string_view text) { all += text; });
    return all;
}

std::vector<LogPart> LogReader::read_parts()
{
    std::vector<LogPart> parts;
    read_files([&](std::string_view text) { add_parts(text, parts); });
    return parts;
}

// If the log is rotated while its files are opened, the times may be those of another file: lines
// then get a slightly wrong time.
void LogReader::add_parts(std::string_view text, std::vector<LogPart>& parts)
{
    Time entry = {};
    while (times_ && ::read(times_.get(), &entry, sizeof entry) == sizeof entry)
        next_.push_back(entry);
    auto next = next_.begin();
    while (!text.empty()) {
        for (; next != next_.end() && next->offset <= offset_; ++next)
            last_ = *next;
        const std::uint64_t end =
            next != next_.end() ? next->offset - offset_ : std::uint64_t{text.size()};
        const std::string_view part =
            text.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(end, text.size())));
        parts.push_back({last_.time, std::string(part)});
        offset_ += part.size();
        text.remove_prefix(part.size());
    }
    next_.erase(next_.begin(), next);
}

} // namespace zncctl
