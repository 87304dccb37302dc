// crashat_tracer.hpp - traces processes: every system call of a side of the system is reported
// before it is made, and can be replaced by a kill or a failure.
#ifndef CRASHAT_TRACER_HPP
#define CRASHAT_TRACER_HPP

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>

enum class Side { kNone, kDaemon, kClient };

// The fate of a call: it is made, its process is killed instead, or it fails with `error`.
struct Fate {
    bool killed = false;
    int error = 0;
};

// Use from one thread only: the thread that traces must also wait. Children of a traced process
// belong to the same side until they execute a program that is not part of the system.
class Tracer {
  public:
    using Judge = std::function<Fate(pid_t pid, long call)>;

    // Waits for all children. `own` are the programs of the system.
    explicit Tracer(std::string own);

    // Returns false if the process has already ended.
    bool adopt(pid_t pid, Side side);

    // From now on `judge` decides about each call of this side. Returns when all of its processes
    // are traced.
    void watch(Side side, Judge judge);
    void watch_nothing() { watched_ = Side::kNone; }

    // Handles events until `done` returns true. Returns false on timeout.
    bool serve_until(const std::function<bool()>& done, std::chrono::milliseconds limit);

    // A new child may have the process id of one that has ended.
    void expect(pid_t pid) { ended_.erase(pid); }

    // Returns how a child or traced process ended, if it has.
    [[nodiscard]] std::optional<int> status(pid_t pid) const;
    // Describes traced processes that were killed by a signal which nothing sent; empty if there
    // are none.
    [[nodiscard]] const std::string& crashes() const { return crashes_; }
    void forget_crashes() { crashes_.clear(); }

  private:
    struct Tracee {
        Side side = Side::kNone;
        int error = 0; // the current call fails with this error
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
