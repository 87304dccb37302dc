// program_link.hpp - connects a command in the foreground with the process that starts its program
// and waits for it. That process, the host, goes on when the command ends before the program: both
// have the program's terminal, and the host reads it once the other end of the link is closed. Used
// by session and program on the command's side, by the monitor and exec on the host's.
#ifndef ZNC_CLI_CONTAINERS_PROGRAM_LINK_HPP
#define ZNC_CLI_CONTAINERS_PROGRAM_LINK_HPP

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/owned.hpp"

namespace zncctl {

struct LinkMessage {
    enum Kind : std::uint32_t {
        kStarted,     // host: the program runs, or the errno value of the failure; -1: none
        kEnded,       // host: its exit status
        kTakenOver,   // host: has seen that the command is leaving, and everything sent before
        kOutput,      // command: what it has read from the terminal
        kSignal,      // command: send this signal, the host's number, to the program
        kGroupSignal, // the same to all processes of its process group
    };
    Kind kind = kStarted;
    std::int32_t value = 0;
    std::string data; // of kOutput
};

class ProgramLink {
  public:
    // Both ends; invalid with errno set.
    static std::array<ProgramLink, 2> make();

    explicit operator bool() const { return static_cast<bool>(socket_); }
    [[nodiscard]] int fd() const { return socket_.get(); } // to be polled
    void close() { socket_.reset(); }

    // A message that the other end does not take any more is dropped.
    void send(LinkMessage::Kind kind, int value, std::string_view data = "") const;
    // The next message. Nullopt with errno set: EAGAIN if there is none now and `wait` is false,
    // EPIPE after the other end has sent its last one.
    [[nodiscard]] std::optional<LinkMessage> receive(bool wait) const;
    // Nothing more will be sent.
    void finish_sending() const;

  private:
    znc::UniqueFd socket_;
};

} // namespace zncctl

#endif
