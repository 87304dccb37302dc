// crashat_world.hpp - a daemon, clients and what must be left of them, for the driver that kills
// and fails calls. Everything that waits for another process serves the tracer meanwhile.
#ifndef CRASHAT_WORLD_HPP
#define CRASHAT_WORLD_HPP

#include "crashat_tracer.hpp"
#include "ledger.hpp"

#include <functional>
#include <set>
#include <string>
#include <vector>

inline constexpr const char* kStorage = "/tmp/storage";
inline constexpr const char* kShortBundle = "/tmp/short"; // its program ends at once
inline constexpr const char* kLongBundle = "/tmp/long";   // its program does not end
inline constexpr const char* kImage = "/tmp/image";       // an image layout
inline constexpr const char* kUnpacked = "/tmp/unpacked"; // the bundle made of it
inline constexpr const char* kId = "web";

// What is wrong, in words; empty: nothing.
using Complaint = std::string;

class World {
  public:
    explicit World(const std::string& daemonProgram);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Tracer& tracer() { return tracer_; }
    [[nodiscard]] pid_t daemon() const { return daemon_; }
    [[nodiscard]] bool daemon_lives() const { return !tracer_.status(daemon_).has_value(); }

    // Starts a process for `body`, which ends with its result; it begins when it is let go, so that
    // it can be adopted before.
    struct Client {
        pid_t pid;
        int go;
    };
    Client client(const std::function<int()>& body);
    static void let_go(Client& client);

    // Runs `body` in a client of its own to its end: its result, or -1 when it ended otherwise or
    // not in time.
    int run(const std::function<int()>& body);
    // Waits for the end of a client; false when it does not come in time.
    bool ended(pid_t client, std::chrono::milliseconds limit);
    void kill(pid_t client);

    // A running container and the client that waits for it.
    Complaint start_long_container();

    // Starts zncd; `adopted` is called before it begins.
    pid_t launch_daemon(const std::function<void(pid_t)>& adopted = {});
    // Waits until the daemon answers; adopts it if nobody did.
    Complaint await_daemon();
    void kill_daemon();
    Complaint ensure_daemon();

    // What the id and the storage are worth after a fault: the same id works, nothing is left.
    Complaint check_containers();
    Complaint check_images();
    Complaint check_nothing_left();
    // What stands there now is how it is to stand after each fault.
    void take_baseline();
    // Queues of dead clients, which the daemon takes away in its own time.
    Complaint check_queues_swept();

    static void make_bundles();

  private:
    std::string without_pending(const std::string& text);

    std::string program_;
    Tracer tracer_;
    pid_t daemon_ = -1;
    bool traced_ = false;
    Ledger before_;
    std::string keptNames_;
    std::set<pid_t> clients_; // of whom a queue may still be there
    std::vector<pid_t> holders_;
};

#endif
