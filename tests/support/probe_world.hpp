// probe_world.hpp - a real daemon, a bundle whose program is the probe, and a host to protect. Each
// test runs without and with the overlay, inside the ledger.
#ifndef PROBE_WORLD_HPP
#define PROBE_WORLD_HPP

#include "daemon_process.hpp"
#include "host_objects.hpp"
#include "ledger.hpp"
#include "zncontainer.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

// How a program ended and what it wrote to its standard output and error.
struct Outcome {
    int status = -1; // exit status, 128 + signal, or kNotStarted
    std::string text;

    // The number of lines that begin like this.
    [[nodiscard]] int lines(const std::string& beginning) const;
    [[nodiscard]] bool holds(const std::string& check) const { return lines("ok " + check) > 0; }
};
inline constexpr int kNotStarted = 255;

// Gives the calling process everything a client can have that must not come along into a container.
void carry_everything();

// Runs `body` in a process of its own, which ends with its result.
Outcome run_process(const std::function<int()>& body);

// In a process of its own: starts the container and waits for its program. Its exit status, or
// kNotStarted with the error number printed.
int start_and_wait(const char* id);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

// Waits for a file to appear; throws if it does not. Without a look into the heap: another thread
// may just fork, and the child of a program under a sanitizer stands still for ever when the heap
// was locked then.
void await_file(const std::string& path);

class ProbeWorld : public testing::TestWithParam<bool> {
  protected:
    static constexpr const char* kStorage = "/tmp/storage";
    static constexpr const char* kBundle = "/tmp/bundle";
    static constexpr const char* kRootfs = "/tmp/bundle/rootfs";

    struct Config {
        std::vector<std::string> args = {"/bin/probe"};
        std::string cwd = "/";
        std::string mounts; // further members, such as ,"mounts":[...]
        std::vector<std::string> variables;
    };

    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] bool overlay() const { return GetParam(); }
    // The container's root as the host sees it.
    [[nodiscard]] std::string root() const { return overlay() ? "/overlay/web" : kRootfs; }
    [[nodiscard]] static std::string probe_program();
    [[nodiscard]] pid_t daemon() const { return daemon_->pid(); }
    HostObjects& host() { return *host_; }

    // Something of the image, in place of what is there.
    static void plant_link(const std::string& target, const std::string& path);
    static void plant_file(const std::string& path, const std::string& text);

    void configure(const Config& config);
    // The probe with everything it can know about the host.
    void configure_probe(const std::string& use = "all");

    // Create, start from a client that first does `before`, and delete.
    Outcome run(const std::function<void()>& before = {});
    void create();
    Outcome start(const std::function<void()>& before = {});
    void destroy();

    // Runs the whole probe: nothing may escape, and these checks must be among those that held.
    void expect_confined(const std::function<void()>& before = {},
                         const std::vector<const char*>& checks = {});

  private:
    [[nodiscard]] Ledger quiet_ledger() const;

    std::unique_ptr<DaemonProcess> daemon_;
    std::unique_ptr<HostObjects> host_;
    Ledger ledger_;
};

#endif
