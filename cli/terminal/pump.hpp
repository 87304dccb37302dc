// pump.hpp - carries bytes from one descriptor to another, one direction of a program's streams.
// It never waits and reads no more than it can pass on, so that who writes feels who does not
// read. Used by streams.cpp.
#ifndef ZNC_CLI_TERMINAL_PUMP_HPP
#define ZNC_CLI_TERMINAL_PUMP_HPP

#include <array>
#include <cstddef>
#include <functional>
#include <limits>
#include <poll.h>
#include <string_view>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

// A descriptor at one end of a pump.
class PumpEnd {
  public:
    // The caller's, which others share: opened anew where that keeps it from waiting (terminals and
    // pipes), else as it is.
    static PumpEnd of_caller(int fd);
    // zncctl's own, which does not wait. It is closed when the pump is done.
    static PumpEnd own(znc::UniqueFd fd);
    // As own(), but somebody else closes it.
    static PumpEnd borrowed(int fd);

    [[nodiscard]] int fd() const { return fd_; }
    // What to poll. Of a FIFO opened anew poll does not say that its writers went before that.
    [[nodiscard]] int polled() const { return polled_; }
    [[nodiscard]] bool is_terminal() const { return terminal_; }
    ssize_t read(char* buffer, std::size_t size) const;
    [[nodiscard]] ssize_t write(std::string_view bytes) const;
    void close();

  private:
    int fd_ = -1;
    int polled_ = -1;
    znc::UniqueFd owned_;
    bool socket_ = false;
    bool terminal_ = false;
};

class Pump {
  public:
    // `name` is what messages call the caller's end.
    Pump(PumpEnd from, PumpEnd to, const char* name);

    // Bytes are moved inside the kernel where it can. Only for a pipe of a program's as `from`: of
    // a file that is moved into a pipe, the program could reach the file's own memory.
    void move_in_kernel() { moving_ = true; }
    // Called with what was read, after that was passed on as far as there is room. At the end of
    // input these bytes are passed on instead of an end.
    void watch(std::function<void(std::string_view)> watcher, std::string_view end_text);
    // Nothing is read for now.
    void pause(bool paused) { paused_ = paused; }

    // What to poll for: the descriptor read from and the one written to.
    [[nodiscard]] std::array<pollfd, 2> wanted() const;
    // Goes on after a poll.
    void go(short from_events, short to_events);
    // From now on only passes on what is there already, and of that no more than `most` bytes.
    void finish(std::size_t most);
    void abandon() { end(0); }

    [[nodiscard]] bool done() const { return done_; }
    // Why bytes were lost, 0 if for no other reason than that nobody reads them.
    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] const char* name() const { return name_; }
    [[nodiscard]] const PumpEnd& from() const { return from_; }

  private:
    [[nodiscard]] bool pending() const { return begin_ < end_; }
    void fill();
    void fill_by_moving();
    void fill_by_reading();
    void flush();
    void pass_rest();
    void taken(std::size_t bytes);
    void source_ended(int error);
    void end(int error);

    PumpEnd from_;
    PumpEnd to_;
    const char* name_;
    std::function<void(std::string_view)> watcher_;
    std::string_view end_text_;
    std::vector<char> buffer_; // empty until bytes are copied
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t left_ = std::numeric_limits<std::size_t>::max();
    bool moving_ = false;
    bool no_room_ = false; // when moving
    bool paused_ = false;
    bool finishing_ = false;
    bool source_ended_ = false;
    bool done_ = false;
    int error_ = 0;
};

} // namespace zncctl

#endif
