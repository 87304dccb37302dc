// crashat_world.hpp - a daemon, clients and checks of what they leave, for the driver that injects
// faults. All functions that wait for another process handle tracer events while they wait.
#ifndef CRASHAT_WORLD_HPP
#define CRASHAT_WORLD_HPP

#include "crashat_tracer.hpp"
#include "ledger.hpp"

#include <functional>
#include <set>
#include <string>
#include <vector>

inline constexpr const char* kStorage = "/tmp/storage";
inline constexpr const char* kShortBundle = "/tmp/short"; // the program ends immediately
inline constexpr const char* kLongBundle = "/tmp/long";   // the program does not end
inline constexpr const char* kImage = "/tmp/image";       // an image layout
inline constexpr const char* kUnpacked = "/tmp/unpacked"; // the bundle unpacked from it
inline constexpr const char* kId = "web";

// Describes what is wrong; empty if nothing is.
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

    // Forks a process that runs `body` and exits with its result. It waits until it is released, so
    // that it can be adopted before.
    struct Client {
        pid_t pid;
        int go;
    };
    Client client(const std::function<int()>& body);
    static void let_go(Client& client);

    // Runs `body` in a client process; returns its result, or -1 if it ended otherwise or not in
    // time.
    int run(const std::function<int()>& body);
    // Waits for a client to end; returns false on timeout.
    bool ended(pid_t client, std::chrono::milliseconds limit);
    void kill(pid_t client);

    // Starts a container and a client that waits for it.
    Complaint start_long_container();

    // Starts zncd; `adopted` is called before it runs.
    pid_t launch_daemon(const std::function<void(pid_t)>& adopted = {});
    // Waits until the daemon answers; adopts it if that has not been done.
    Complaint await_daemon();
    void kill_daemon();
    Complaint ensure_daemon();

    // Checks the system after a fault: the same id works, and nothing is left.
    Complaint check_containers();
    Complaint check_images();
    Complaint check_nothing_left();
    // Records the current state as the expected one after each fault.
    void take_baseline();
    // Queues of dead clients, which the daemon removes after some time.
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
    std::set<pid_t> clients_; // clients whose queues may still exist
    std::vector<pid_t> holders_;
};

#endif
