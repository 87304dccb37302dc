// attach_channel.hpp - the channel through which processes that attach to a detached program send
// input, and the size of their terminal, to its monitor: a FIFO in the directory of the record,
// which only root can open. Used by the monitor and attach.
#ifndef ZNC_CLI_CONTAINERS_ATTACH_CHANNEL_HPP
#define ZNC_CLI_CONTAINERS_ATTACH_CHANNEL_HPP

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/owned.hpp"

namespace zncctl {

// A message is written by one call; its size is at most PIPE_BUF, so the kernel does not interleave
// it with messages of other processes.
struct AttachMessage {
    enum Kind : std::uint16_t { kInput, kEndOfInput, kSize };

    std::uint16_t kind = kInput;
    std::uint16_t length = 0; // of the data
    std::array<char, 508> data = {};
};
static_assert(sizeof(AttachMessage) == 512);

// The monitor's end.
class AttachReceiver {
  public:
    // `record` is the directory of the record. Invalid with errno set.
    explicit AttachReceiver(int record);

    explicit operator bool() const { return static_cast<bool>(fifo_); }
    [[nodiscard]] int fd() const { return fifo_.get(); } // to be polled
    // The next message, without waiting.
    [[nodiscard]] std::optional<AttachMessage> next() const;

  private:
    znc::UniqueFd fifo_;
};

// The end of a process that attaches.
class AttachSender {
  public:
    // Invalid with errno set: ENXIO or ENOENT if there is no monitor that takes input.
    explicit AttachSender(int record);

    explicit operator bool() const { return static_cast<bool>(fifo_); }
    // Sends as much of the added data as possible without waiting.
    void flush();
    void add_input(std::string_view bytes);
    void add_end();
    void add_size(unsigned short rows, unsigned short columns);
    [[nodiscard]] bool is_full() const { return !waiting_.empty(); }

  private:
    void add(AttachMessage::Kind kind, std::string_view data);

    znc::UniqueFd fifo_;
    std::string waiting_; // messages, one after the other
};

// The size in a message; rows and columns.
std::optional<std::array<unsigned short, 2>> size_in(const AttachMessage& message);

} // namespace zncctl

#endif
