// ready.hpp - readiness notification (sd_notify): if NOTIFY_SOCKET names a socket of a service
// manager, the container gets a socket of its own, and its READY=1 is passed on.
#ifndef ZNC_OCI_READY_HPP
#define ZNC_OCI_READY_HPP

#include "bundle.hpp"

#include <string_view>

namespace zncrun {

// Whether a message of a container says that it is ready: one of its lines is "READY=1".
bool says_ready(std::string_view message);

// For `create`: gives the container a directory for the socket and NOTIFY_SOCKET, unless there is
// no service manager, or the configuration already has a socket.
void offer_ready_socket(Bundle& bundle, const StateDirectory& directory);

// The container's socket. It is bound by `start`, which then listens: `create` ends before.
class ReadySocket {
  public:
    ReadySocket() = default; // none
    // Empty if the container was created without one or NOTIFY_SOCKET is not set. Fails if the
    // service manager's socket refuses the connection. What fails later, when the program runs, is
    // a warning in the log.
    static ReadySocket listen(const Context& context, const StateDirectory& directory);

    explicit operator bool() const { return static_cast<bool>(own_); }
    [[nodiscard]] int get() const { return own_.get(); }

    // Receives the messages that are there. If one says that the container is ready, so is the
    // service, with the main process `main`; the socket is closed then. Nothing else that a
    // container sends is passed on.
    void receive(pid_t main);

    // Returns when the container has said that it is ready or has ended, and the service manager
    // has read the message: it may not take one whose sender has ended.
    void wait(const ZN_ENGINE_PROCESS& process);

  private:
    void pass_on(pid_t main);
    void await_manager() const;
    void warn() const;

    const Context* context_ = nullptr;
    znc::UniqueFd own_;
    znc::UniqueFd manager_;
};

} // namespace zncrun

#endif
