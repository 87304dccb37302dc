#include "cgroup_file.hpp"

#include "system/open_confined.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace zn {
namespace {

constexpr std::string_view kNoLimit = "max";

// RESOLVE_NO_XDEV: what is mounted on a directory of the hierarchy does not belong to it.
znc::UniqueFd open_beneath(int top, const char* path, int flags)
{
    return open_confined(top, path, flags | O_NOFOLLOW,
                         RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS |
                             RESOLVE_NO_XDEV);
}

} // namespace

znc::UniqueFd group_open(int top, const char* path)
{
    return open_beneath(top, path, O_RDONLY | O_DIRECTORY);
}

znc::UniqueFd control_open(int group, const char* file, int flags)
{
    return open_beneath(group, file, flags);
}

int control_write(int group, const char* file, std::string_view text)
{
    const znc::UniqueFd fd = control_open(group, file, O_WRONLY | O_TRUNC);
    return fd ? control_put(fd.get(), text) : errno;
}

int control_put(int file, std::string_view text)
{
    for (;;) {
        const ssize_t put = ::write(file, text.data(), text.size());
        if (put >= 0)
            return static_cast<std::size_t>(put) == text.size() ? 0 : EIO;
        if (errno != EINTR)
            return errno;
    }
}

bool control_exists(int group, const char* file)
{
    return static_cast<bool>(control_open(group, file, O_PATH));
}

ControlLines::ControlLines(int group, const char* file) : file_(control_open(group, file, O_RDONLY))
{
    if (!file_)
        error_ = errno;
}

// Reads more data after the unread rest. False at the end and on errors.
bool ControlLines::fill()
{
    std::memmove(text_, text_ + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    const std::size_t room = sizeof text_ - 1 - end_;
    if (room == 0) {
        error_ = E2BIG;
        return false;
    }
    ssize_t got = -1;
    do
        got = ::read(file_.get(), text_ + end_, room);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        error_ = errno;
    if (got <= 0)
        return false;
    end_ += static_cast<std::size_t>(got);
    return true;
}

const char* ControlLines::next()
{
    while (error_ == 0) {
        char* line = text_ + begin_;
        auto* end = static_cast<char*>(std::memchr(line, '\n', end_ - begin_));
        if (end != nullptr) {
            *end = '\0';
            begin_ = static_cast<std::size_t>(end - text_) + 1;
            return line;
        }
        if (fill())
            continue;
        if (error_ != 0 || begin_ == end_)
            return nullptr;
        text_[end_] = '\0'; // the last line may lack its newline
        line = text_ + begin_;
        begin_ = end_;
        return line;
    }
    return nullptr;
}

bool read_number(const char* text, std::uint64_t& number)
{
    if (std::strncmp(text, kNoLimit.data(), kNoLimit.size()) == 0) {
        number = UINT64_MAX;
        return true;
    }
    if (*text < '0' || *text > '9')
        return false;
    number = std::strtoull(text, nullptr, 10);
    return true;
}

int control_number(int group, const char* file, std::uint64_t& number)
{
    ControlLines lines(group, file);
    const char* line = lines.next();
    if (line == nullptr)
        return lines.error() != 0 ? lines.error() : EBADMSG;
    return read_number(line, number) ? 0 : EBADMSG;
}

int control_value(int group, const char* file, const char* key, std::uint64_t& number)
{
    const std::size_t len = std::strlen(key);
    ControlLines lines(group, file);
    while (const char* line = lines.next())
        if (std::strncmp(line, key, len) == 0 && line[len] == ' ')
            return read_number(line + len + 1, number) ? 0 : EBADMSG;
    return lines.error() != 0 ? lines.error() : ENOENT;
}

} // namespace zn
