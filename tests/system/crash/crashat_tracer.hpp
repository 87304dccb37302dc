// crashat_tracer.hpp - processes under trace: every system call that a side of the system makes is
// shown before it happens, and can be the last one or fail.
#ifndef CRASHAT_TRACER_HPP
#define CRASHAT_TRACER_HPP

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>

enum class Side { kNone, kDaemon, kClient };

// What becomes of a call: it is made, its process is killed instead, or it fails with `error`.
struct Fate {
    bool killed = false;
    int error = 0;
};

// One thread's: the tracer must be the one that waits. Processes that a traced one makes are of its
// side, too, until they run a program that is not of the system.
class Tracer {
  public:
    using Judge = std::function<Fate(pid_t pid, long call)>;

    // Takes part in all children's ends. `own` are the programs of the system.
    explicit Tracer(std::string own);

    // False when the process ended before.
    bool adopt(pid_t pid, Side side);

    // From now on `judge` decides about each call of this side. Returns when all of its processes
    // are under watch.
    void watch(Side side, Judge judge);
    void watch_nothing() { watched_ = Side::kNone; }

    // Serves events until `done` says so. False: the time was over before.
    bool serve_until(const std::function<bool()>& done, std::chrono::milliseconds limit);

    // A new child may have the id of one that ended.
    void expect(pid_t pid) { ended_.erase(pid); }

    // How a child or a traced process ended, once it has.
    [[nodiscard]] std::optional<int> status(pid_t pid) const;
    // Ends of traced processes by a signal that nobody sent, in words; empty: none.
    [[nodiscard]] const std::string& crashes() const { return crashes_; }
    void forget_crashes() { crashes_.clear(); }

  private:
    struct Tracee {
        Side side = Side::kNone;
        int error = 0; // the call it is in fails with this
        bool interrupted = false;
    };

    bool serve_one();
    void note_end(pid_t pid, int status);
    void handle_stop(pid_t pid, int status);
    void handle_call(pid_t pid, Tracee& tracee);
    bool is_own(pid_t pid) const;
    void resume(pid_t pid, const Tracee& tracee, int signal) const;

    std::string own_;
    std::map<pid_t, Tracee> tracees_;
    std::map<pid_t, int> ended_;
    std::string crashes_;
    Side watched_ = Side::kNone;
    Judge judge_;
};

#endif
