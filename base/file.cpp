// file.cpp - see file.hpp.
#include "file.hpp"

#include "failure.hpp"

#include <fcntl.h>

znc::UniqueFd znc::open_regular(const char* path, struct stat* st)
{
    if (::stat(path, st) != 0)
        return {};
    UniqueFd fd;
    if (S_ISREG(st->st_mode))
        // O_NONBLOCK: the path may have been replaced by a FIFO or a terminal since the stat, which
        // would block.
        fd.reset(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    else
        errno = EINVAL;
    if (fd && ::fstat(fd.get(), st) != 0)
        fd.reset();
    if (fd && !S_ISREG(st->st_mode)) {
        fd.reset();
        errno = EINVAL;
    }
    return fd;
}

znc::FileText znc::read_text(int fd, const struct stat& st)
{
    if (st.st_size > kFileTextMax) {
        errno = EFBIG;
        return {};
    }
    const auto size = static_cast<std::size_t>(st.st_size);
    FileText text;
    text.bytes = malloc_array<char>(size + 1);
    while (text.bytes != nullptr && text.len < size) {
        const ssize_t got = ::read(fd, text.bytes.get() + text.len, size - text.len);
        if (got == 0)
            break;
        if (got > 0)
            text.len += static_cast<std::size_t>(got);
        else if (errno != EINTR)
            text.bytes.reset();
    }
    return text;
}

bool znc::write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = ::write(fd, bytes.data(), bytes.size());
        if (put > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(put));
        } else if (put == 0) {
            return znc::fail(ENOSPC, false);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool znc::is_directory(const char* path)
{
    struct stat st = {};
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool znc::is_directory(int fd)
{
    struct stat st = {};
    return ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
}
