// keeper_link.hpp - a keeper process and the communication with it: start, requests and answers,
// end. Used by the namespace service. Namespace ids, records and overlay devices are handled
// elsewhere.
#ifndef ZN_KEEPER_LINK_HPP
#define ZN_KEEPER_LINK_HPP

#include "base/owned.hpp"
#include "helper/wire.hpp"

#include <cstdint>
#include <span>
#include <sys/types.h>

namespace zn {

inline constexpr int kAnswerMilliseconds = 4000; // less than the time after which a client gives up

class Keeper {
  public:
    // Starts a keeper in new namespaces of the given kinds (CLONE_NEW flags, with CLONE_NEWPID) and
    // a new mount namespace. False with errno set.
    bool start(unsigned long namespaces);

    // Starts the process that starts spare keepers (helper/starter.cpp). It serves no requests.
    // False with errno set.
    bool start_starter();

    // Whether enough descriptors are left to end namespaces and to answer requests about them. A
    // namespace that would use the last ones is not created. False with errno set.
    static bool descriptors_left();

    // Takes over a helper that was started otherwise and serves requests at the other end of
    // `socket`.
    // Earlier owners of that end may have left requests without reading the answers.
    void adopt(pid_t pid, znc::UniqueFd pidfd, znc::UniqueFd socket);

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int pidfd() const { return pidfd_.get(); }
    [[nodiscard]] int socket() const { return socket_.get(); }

    // Sends a request and waits for the answer. 0, or an error number: the one reported by the
    // keeper, ESRCH if the keeper is dead, ETIMEDOUT if it does not answer in time (it is then
    // killed).
    int ask(const wire::Request& request, std::span<const char> text, int descriptor,
            std::uint64_t* value = nullptr, int waitMilliseconds = kAnswerMilliseconds);
    int ask(wire::Op op, std::uint64_t value = 0, std::uint64_t* answer = nullptr,
            int waitMilliseconds = kAnswerMilliseconds);

    // Whether a process other than the keeper is alive in its namespace. 0 or an error number as of
    // ask(). Does not ask while the process lives that the keeper has named before.
    int in_use(bool& used);

    // Sends a request that is not answered. The receiver carries it out unless one that was posted
    // before has failed. 0 or an error number: EAGAIN if the socket is full, until settle().
    int post(const wire::Request& request, std::span<const char> text, int descriptor);
    // Waits until all posted requests have been carried out. 0, or as ask() the error of the first
    // one that failed; `failed` is its place among those since the last call, from 0, or their
    // number if it is not known.
    int settle(std::size_t& failed, int waitMilliseconds);

    // Kills all processes in the namespaces except the keeper, without waiting for their ends.
    void kill_others(int waitMilliseconds);

    // Kills the keeper and all processes in its namespaces. On return all of them are dead, unless
    // `deadline` (as returned by clock.hpp) passed first.
    void kill(std::int64_t deadline);

    // Whether there is no keeper, or it has ended, waiting up to the given time. The kernel ends
    // the keeper only after all other processes of its PID namespace have been reaped, so a process
    // whose parent is outside delays it until that parent waits for it.
    [[nodiscard]] bool ended(int waitMilliseconds) const;

    // Reaps the keeper. False if it has not ended.
    bool reap();

  private:
    static int bare_mounts();
    int send(wire::Request request, std::span<const char> text, int descriptor, int flags);
    int receive(wire::Answer& answer, std::uint32_t serial, int waitMilliseconds,
                znc::UniqueFd* descriptor = nullptr);
    bool launch(const char* part, int mounts, unsigned long namespaces);

    pid_t pid_ = -1;
    znc::UniqueFd pidfd_;
    znc::UniqueFd socket_;
    znc::UniqueFd live_;       // pidfd of a process that was alive in the namespace
    std::uint32_t serial_ = 0; // of the last request
    std::uint32_t posted_ = 0; // number of requests that were posted since the last settle()
};

} // namespace zn

#endif
