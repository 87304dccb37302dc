// seccomp_agent.hpp - the program that decides about system calls with SCMP_ACT_NOTIFY. It receives
// the listener of each filter, with the state of the container, through the socket
// "linux.seccomp.listenerPath".
#ifndef ZNC_OCI_SECCOMP_AGENT_HPP
#define ZNC_OCI_SECCOMP_AGENT_HPP

#include "base/not_copied.hpp"
#include "state.hpp"

namespace zncrun {

class SeccompAgent : znc::NotCopied {
  public:
    // `status`: of the container, as the agent is told.
    SeccompAgent(const Json& config, const Container& container, Status status);

    // For the platform, as long as this object exists.
    [[nodiscard]] const ZN_ENGINE_LISTENER* listener() const { return &listener_; }

    // `reason`, or why the agent did not get the listener.
    [[nodiscard]] std::string reason(const char* reason) const;

  private:
    static STATUS receive(int listener, pid_t pid, void* context);
    void send(int listener, pid_t pid) const;

    std::string path_;
    Json document_ = Json::object(); // without the process id
    std::string failure_;
    ZN_ENGINE_LISTENER listener_;
};

} // namespace zncrun

#endif
