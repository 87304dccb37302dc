#include "attach_channel.hpp"

#include "front/record.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zncctl {
namespace {

using Size = std::array<unsigned short, 2>;

} // namespace

// The FIFO is also opened for writing: otherwise it would become readable (end of file) each time a
// writer closes it.
AttachReceiver::AttachReceiver(int record)
{
    if ((::unlinkat(record, kInputName, 0) == 0 || errno == ENOENT) &&
        ::mkfifoat(record, kInputName, 0600) == 0)
        fifo_.reset(::openat(record, kInputName, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
}

std::optional<AttachMessage> AttachReceiver::next() const
{
    AttachMessage message;
    if (::read(fifo_.get(), &message, sizeof message) != sizeof message ||
        message.length > message.data.size())
        return std::nullopt;
    return message;
}

AttachSender::AttachSender(int record)
    : fifo_(::openat(record, kInputName, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC))
{
    struct stat st = {};
    if (fifo_ && (::fstat(fifo_.get(), &st) != 0 || !S_ISFIFO(st.st_mode)))
        fifo_.reset();
}

void AttachSender::add(AttachMessage::Kind kind, std::string_view data)
{
    AttachMessage message;
    message.kind = kind;
    message.length = static_cast<std::uint16_t>(data.size());
    std::copy(data.begin(), data.end(), message.data.begin());
    waiting_.append(reinterpret_cast<const char*>(&message), sizeof message);
}

void AttachSender::add_input(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t part = std::min(bytes.size(), AttachMessage().data.size());
        add(AttachMessage::kInput, bytes.substr(0, part));
        bytes.remove_prefix(part);
    }
}

void AttachSender::add_end()
{
    add(AttachMessage::kEndOfInput, "");
}

void AttachSender::add_size(unsigned short rows, unsigned short columns)
{
    const Size size = {rows, columns};
    add(AttachMessage::kSize, {reinterpret_cast<const char*>(&size), sizeof size});
}

void AttachSender::flush()
{
    while (!waiting_.empty() &&
           ::write(fifo_.get(), waiting_.data(), sizeof(AttachMessage)) == sizeof(AttachMessage))
        waiting_.erase(0, sizeof(AttachMessage));
}

std::optional<Size> size_in(const AttachMessage& message)
{
    Size size = {};
    if (message.kind != AttachMessage::kSize || message.length != sizeof size)
        return std::nullopt;
    std::memcpy(&size, message.data.data(), sizeof size);
    return size;
}

} // namespace zncctl
