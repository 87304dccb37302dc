// console.hpp - the terminal of a program: its master goes to the caller's console socket, or, in
// the foreground, stays here and is connected with the caller's standard streams.
#ifndef ZNC_OCI_CONSOLE_HPP
#define ZNC_OCI_CONSOLE_HPP

#include "context.hpp"
#include "front/pump.hpp"
#include "front/raw_terminal.hpp"
#include "zarnel/engine.h"

#include <optional>
#include <poll.h>
#include <vector>

namespace zncrun {

struct Process;

class Console {
  public:
    // A program in the foreground needs no console socket.
    enum class Place { kForeground, kDetached };

    Console(const Arguments& args, const Process& process, Place place);

    // The socket to which the master is sent, for the plan; -1 without a terminal.
    [[nodiscard]] int socket() const { return socket_ ? socket_.get() : -1; }
    // Gives a terminal in the foreground the size of the caller's, unless the configuration has
    // one.
    void set_size(ZN_ENGINE_PROGRAM& program) const;
    // To be called when the program has its terminal: gets the master, unless the caller's socket
    // has it, and puts the caller's terminal into raw mode. Signals must be blocked.
    void connect();

    // What to poll for besides the caller's own descriptors, and what to do with the results.
    void add_wanted(std::vector<pollfd>& wanted);
    void go(const pollfd* results);
    // Whether another process group uses the caller's terminal: it must be looked at again later.
    [[nodiscard]] bool in_background() const;
    // Gives the program's terminal the size of the caller's. False without a terminal here.
    bool copy_size() const;
    // When the program has ended: passes on what it has written.
    void finish();

  private:
    void receive_master();

    znc::UniqueFd socket_;
    znc::UniqueFd receiver_;
    znc::UniqueFd master_;
    std::optional<zncctl::RawTerminal> raw_;
    std::optional<zncctl::Pump> input_;
    std::optional<zncctl::Pump> output_;
};

} // namespace zncrun

#endif
