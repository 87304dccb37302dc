#include "files.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "zarnel/fs.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>

namespace zncctl {
namespace {

// Most files are short: the buffers are not initialised, so that the pages which a read does not
// reach are never touched.
using ReadBuffer = std::array<char, 16384>;

} // namespace

std::string error_text()
{
    return std::generic_category().message(errno);
}

void throw_error(const std::string& object)
{
    throw std::runtime_error(object + ": " + error_text());
}

std::optional<std::vector<std::string>> names_in(int directory)
{
    const znc::UniqueDir stream = znc::directory_listing(directory);
    std::vector<std::string> names;
    while (const dirent* entry = stream ? znc::next_entry(stream.get()) : nullptr)
        names.emplace_back(entry->d_name);
    if (errno != 0)
        return std::nullopt;
    return names;
}

std::string read_to_end(int file)
{
    std::string text;
    ReadBuffer buffer;
    for (;;) {
        const ssize_t n = ::read(file, buffer.data(), buffer.size());
        if (n > 0)
            text.append(buffer.data(), static_cast<std::size_t>(n));
        else if (n == 0 || errno != EINTR)
            return text;
    }
}

// poll() comes first: as long as no program has opened a named pipe for writing, it waits, but
// read() reports an end.
std::optional<std::string> read_pipe(int pipe, std::size_t most, std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::string text;
    ReadBuffer buffer;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd one = {pipe, POLLIN, 0};
        const int ready = left.count() > 0 ? ::poll(&one, 1, static_cast<int>(left.count())) : 0;
        const ssize_t n = ready > 0 ? ::read(pipe, buffer.data(), buffer.size()) : -1;
        if (n == 0)
            return text;
        if (n > 0)
            text.append(buffer.data(), static_cast<std::size_t>(n));
        else if (ready == 0)
            errno = ETIMEDOUT;
        if (text.size() > most)
            errno = EFBIG;
        if (text.size() > most || (n < 0 && errno != EINTR && errno != EAGAIN))
            return std::nullopt;
    }
}

std::string read_error_text()
{
    return errno == EINVAL ? "It is not a regular file" : error_text();
}

std::string descriptor_path(int fd)
{
    std::array<char, 64> path{};
    znDescriptorPath(fd, path.data(), path.size());
    return path.data();
}

znc::UniqueFd open_regular(const std::string& path, int dir)
{
    // O_NONBLOCK, because opening a FIFO without a writer would block; O_NOCTTY, because the file
    // may be a terminal.
    znc::UniqueFd file(::openat(dir, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st = {};
    if (!file || ::fstat(file.get(), &st) != 0)
        return {};
    if (S_ISREG(st.st_mode))
        return file;
    return znc::fail(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, znc::UniqueFd());
}

std::optional<std::string> read_file(const std::string& path, int dir)
{
    constexpr std::size_t kMost = 64 * 1024 * 1024;
    const znc::UniqueFd file = open_regular(path, dir);
    if (!file)
        return std::nullopt;
    std::string content;
    ReadBuffer buffer;
    for (;;) {
        const ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            return content;
        content.append(buffer.data(), static_cast<std::size_t>(n));
        if (content.size() > kMost)
            return znc::fail(EFBIG, std::nullopt);
    }
}

bool replace_file(int dir, const char* name, std::string_view content, bool lasting)
{
    const std::string fresh = std::string(name) + ".new";
    // A FIFO at the temporary name would be waited for.
    znc::UniqueFd file(::openat(dir, fresh.c_str(),
                                O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                0600));
    struct stat st = {};
    if (!file || ::fstat(file.get(), &st) != 0)
        return false;
    if (!S_ISREG(st.st_mode))
        return znc::fail(EINVAL, false);
    if (write_all(file.get(), content) && (!lasting || ::fsync(file.get()) == 0) &&
        file.close_checked() == 0 && ::renameat(dir, fresh.c_str(), dir, name) == 0)
        return !lasting || ::fsync(dir) == 0;
    const znc::ErrnoSaver keep;
    ::unlinkat(dir, fresh.c_str(), 0); // do not take up space on a full disk
    return false;
}

} // namespace zncctl
