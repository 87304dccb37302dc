// keeper_link.hpp - one keeper process and the talk with it: start, request and answer, end. Used
// by the namespace service, which decides what to ask. Left out: ids, records, overlay devices.
#ifndef ZN_KEEPER_LINK_HPP
#define ZN_KEEPER_LINK_HPP

#include "base/owned.hpp"
#include "helper/wire.hpp"

#include <cstdint>
#include <span>
#include <sys/types.h>

namespace zn {

inline constexpr int kAnswerMilliseconds = 4000; // below the time after which a client gives up

class Keeper {
  public:
    // A new keeper in namespaces of its own. False with errno set.
    bool start();

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int pidfd() const { return pidfd_.get(); }

    // Ask and wait for the answer. 0, or an error number: the keeper's own, ESRCH when it is dead,
    // ETIMEDOUT when it does not answer (it is then killed).
    int ask(const wire::Request& request, std::span<const char> text, int descriptor,
            std::uint64_t* value = nullptr, int waitMilliseconds = kAnswerMilliseconds);
    int ask(wire::Op op, std::uint64_t value = 0, std::uint64_t* answer = nullptr,
            int waitMilliseconds = kAnswerMilliseconds);

    // Kill everything in its namespaces, but not the keeper, and do not wait for their ends.
    void kill_others(int waitMilliseconds);

    // Kill the keeper and with it everything in its namespaces. On return all of it is dead, unless
    // `deadline` (a point in time of clock.hpp) came first.
    void kill(std::int64_t deadline);

    // Whether the keeper ended, waiting that long for it, which it does not until everybody who
    // lived with it was, too: a process whose parent is outside keeps it until that parent asks for
    // its end.
    [[nodiscard]] bool ended(int waitMilliseconds) const;

    // Takes an ended keeper's process away. False: it has not ended.
    bool reap();

  private:
    static int bare_mounts();
    bool launch(int mounts);

    pid_t pid_ = -1;
    znc::UniqueFd pidfd_;
    znc::UniqueFd socket_;
};

} // namespace zn

#endif
