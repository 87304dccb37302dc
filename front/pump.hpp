// pump.hpp - copies bytes from one descriptor to another: one direction of a program's standard
// streams. It never blocks, and stops reading when the data cannot be written, so that a slow
// reader slows down the writer.
#ifndef ZNC_FRONT_PUMP_HPP
#define ZNC_FRONT_PUMP_HPP

#include <array>
#include <cstddef>
#include <functional>
#include <limits>
#include <poll.h>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

// A descriptor at one end of a pump.
class PumpEnd {
  public:
    // A descriptor inherited from the caller and possibly shared with other processes. Terminals
    // and pipes are reopened, so that O_NONBLOCK does not affect the others; anything else is used
    // as it is.
    static PumpEnd of_caller(int fd);
    // A descriptor of this program's own, in non-blocking mode. It is closed when the pump is done.
    static PumpEnd own(znc::UniqueFd fd);
    // Like own(), but the owner of the descriptor closes it.
    static PumpEnd borrowed(int fd);

    [[nodiscard]] int fd() const { return fd_; }
    // The descriptor to poll: the original one. poll() on a reopened FIFO does not report POLLHUP
    // for writers that closed it before it was reopened.
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
    // `name` is used for the caller's end in messages.
    Pump(PumpEnd from, PumpEnd to, const char* name);

    // Moves the bytes inside the kernel if that is supported. `from` must be a pipe written by the
    // program. The opposite direction, from a file into the program's pipe, would not be safe: the
    // pipe would contain pages of the file itself, which the program could then modify.
    void move_in_kernel() { moving_ = true; }
    // Calls `watcher` with the bytes read, after they were written as far as possible. At the end
    // of input, `end_text` is passed on instead of an end of file. No bytes are then moved inside
    // the kernel.
    void watch(std::function<void(std::string_view)> watcher, std::string_view end_text);
    // Passes on what `filter` makes of the bytes read instead of these.
    void filter(std::function<std::string(std::string_view)> filter)
    {
        filter_ = std::move(filter);
    }
    // While paused, nothing is read.
    void pause(bool paused) { paused_ = paused; }

    // What to poll for: the descriptor read from and the one written to.
    [[nodiscard]] std::array<pollfd, 2> wanted() const;
    // To be called with the results of poll().
    void go(short from_events, short to_events);
    // From now on passes on only what can be read without waiting, and at most `most` bytes.
    void finish(std::size_t most);
    void abandon() { end(0); }

    [[nodiscard]] bool done() const { return done_; }
    // The errno value of a failure that lost bytes. 0 if there was none, or if the reader closed
    // its end.
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
    std::size_t filtered(std::size_t bytes);
    void count_taken(std::size_t bytes);
    void source_ended(int error);
    void end(int error);

    PumpEnd from_;
    PumpEnd to_;
    const char* name_;
    std::function<void(std::string_view)> watcher_;
    std::function<std::string(std::string_view)> filter_;
    std::string_view end_text_;
    std::vector<char> buffer_; // allocated when bytes are first copied
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t remaining_ = std::numeric_limits<std::size_t>::max();
    bool moving_ = false;
    bool output_full_ = false; // znStreamMove found the writing side full
    bool paused_ = false;
    bool finishing_ = false;
    bool source_ended_ = false;
    bool done_ = false;
    int error_ = 0;
};

} // namespace zncctl

#endif
