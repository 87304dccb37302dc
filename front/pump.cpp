#include "pump.hpp"

#include "zarnel/stream.h"

#include <algorithm>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>

namespace zncctl {
namespace {

constexpr std::size_t kBufferSize = 65536; // the default capacity of a pipe

bool would_block(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

bool is_readable(int fd)
{
    pollfd wanted = {fd, POLLIN, 0};
    return ::poll(&wanted, 1, 0) == 1;
}

} // namespace

PumpEnd PumpEnd::of_caller(int fd)
{
    PumpEnd end = borrowed(fd);
    struct stat st = {};
    if (::fstat(fd, &st) != 0)
        return end;
    end.socket_ = S_ISSOCK(st.st_mode);
    end.terminal_ = ::isatty(fd) != 0;
    if (!end.terminal_ && !S_ISFIFO(st.st_mode))
        return end;
    end.owned_.reset(znStreamReopen(fd));
    if (end.owned_)
        end.fd_ = end.owned_.get();
    return end;
}

PumpEnd PumpEnd::own(znc::UniqueFd fd)
{
    PumpEnd end = borrowed(fd.get());
    end.owned_ = std::move(fd);
    return end;
}

PumpEnd PumpEnd::borrowed(int fd)
{
    PumpEnd end;
    end.fd_ = end.polled_ = fd;
    return end;
}

ssize_t PumpEnd::read(char* buffer, std::size_t size) const
{
    return socket_ ? ::recv(fd_, buffer, size, MSG_DONTWAIT) : ::read(fd_, buffer, size);
}

ssize_t PumpEnd::write(std::string_view bytes) const
{
    return socket_ ? ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                   : ::write(fd_, bytes.data(), bytes.size());
}

void PumpEnd::close()
{
    owned_.reset();
    fd_ = polled_ = -1;
}

Pump::Pump(PumpEnd from, PumpEnd to, const char* name)
    : from_(std::move(from)), to_(std::move(to)), name_(name)
{
}

void Pump::watch(std::function<void(std::string_view)> watcher, std::string_view end_text)
{
    moving_ = false;
    watcher_ = std::move(watcher);
    end_text_ = end_text;
}

std::array<pollfd, 2> Pump::wanted() const
{
    if (done_)
        return {pollfd{-1, 0, 0}, pollfd{-1, 0, 0}};
    const bool read =
        !paused_ && !finishing_ && !source_ended_ && !output_full_ && end_ < kBufferSize;
    const bool write = pending() || output_full_;
    // Poll the writing side even if there is nothing to write: POLLERR shows that its reader has
    // closed it.
    return {pollfd{read ? from_.polled() : -1, POLLIN, 0},
            pollfd{to_.polled(), static_cast<short>(write ? POLLOUT : 0), 0}};
}

void Pump::go(short from_events, short to_events)
{
    if (done_)
        return;
    if ((to_events & (POLLERR | POLLHUP | POLLNVAL)) != 0 && (to_events & POLLOUT) == 0) {
        end(EPIPE);
        return;
    }
    if ((to_events & ~POLLIN) != 0) {
        output_full_ = false;
        flush();
    }
    if (from_events != 0 && !done_ && !finishing_)
        fill();
    if (finishing_)
        pass_rest();
}

void Pump::finish(std::size_t most)
{
    remaining_ = most;
    finishing_ = true;
    pass_rest();
}

// Passes on the rest, until there is no more of it or until the writing side is full.
void Pump::pass_rest()
{
    while (!done_ && !output_full_ && !pending()) {
        if (remaining_ == 0 || source_ended_ || !is_readable(from_.polled()))
            end(0);
        else
            fill();
    }
}

void Pump::fill()
{
    if (moving_)
        fill_by_moving();
    if (!moving_) // also if fill_by_moving() found that moving is not supported
        fill_by_reading();
}

void Pump::fill_by_moving()
{
    const ssize_t n = znStreamMove(from_.fd(), to_.fd(), std::min(remaining_, kBufferSize));
    if (n > 0)
        count_taken(static_cast<std::size_t>(n));
    else if (n == 0)
        source_ended(0);
    else if (errno == ENOTSUP)
        moving_ = false;
    else if (would_block(errno))
        output_full_ = true;
    else
        end(errno);
}

void Pump::fill_by_reading()
{
    buffer_.resize(kBufferSize);
    const ssize_t n = from_.read(buffer_.data() + end_, std::min(remaining_, kBufferSize - end_));
    if (n < 0 && would_block(errno)) {
        if (finishing_)
            end(0);
        return;
    }
    if (n <= 0) {
        source_ended(n < 0 ? errno : 0);
        return;
    }
    count_taken(static_cast<std::size_t>(n));
    const std::size_t bytes = filtered(static_cast<std::size_t>(n));
    const std::string watched(watcher_ ? buffer_.data() + end_ : "", watcher_ ? bytes : 0);
    end_ += bytes;
    flush();
    if (watcher_)
        watcher_(watched);
}

// Replaces the bytes read, which stand at the end of the buffer. Returns how many there are then.
std::size_t Pump::filtered(std::size_t bytes)
{
    if (!filter_)
        return bytes;
    const std::string passed = filter_({buffer_.data() + end_, bytes});
    buffer_.resize(std::max(buffer_.size(), end_ + passed.size()));
    std::copy(passed.begin(), passed.end(), buffer_.begin() + static_cast<std::ptrdiff_t>(end_));
    return passed.size();
}

void Pump::count_taken(std::size_t bytes)
{
    if (finishing_)
        remaining_ -= bytes;
}

void Pump::flush()
{
    while (pending()) {
        const ssize_t n = to_.write({buffer_.data() + begin_, end_ - begin_});
        if (n < 0 && would_block(errno))
            break;
        if (n < 0) {
            end(errno);
            return;
        }
        begin_ += static_cast<std::size_t>(n);
    }
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= begin_;
    begin_ = 0;
    if (source_ended_ && !pending())
        end(0);
}

// EIO (a terminal that was hung up or belongs to another session) and EBADF (a stream that is not
// open for reading) count as the end of input, not as errors.
void Pump::source_ended(int error)
{
    if (error != 0 && error != EBADF && error != ECONNRESET && error != EIO)
        error_ = error;
    source_ended_ = true;
    buffer_.resize(std::max(buffer_.size(), end_ + end_text_.size()));
    std::copy(end_text_.begin(), end_text_.end(),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_));
    end_ += end_text_.size();
    flush();
    if (!pending())
        end(0);
}

// Closing both descriptors informs both sides: the reader gets end of file, the writer EPIPE.
void Pump::end(int error)
{
    const bool nobody_reads =
        error == EPIPE || error == ECONNRESET || (error == EIO && to_.is_terminal());
    if (error != 0 && !nobody_reads)
        error_ = error;
    done_ = true;
    begin_ = end_ = 0;
    from_.close();
    to_.close();
}

} // namespace zncctl
