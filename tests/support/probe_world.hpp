// probe_world.hpp - a real daemon, a bundle whose program is the probe, and objects of the host to
// protect. Each test runs without and with the overlay filesystem and with user namespaces, and
// checks the ledger.
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

// The exit status of a program and its output on standard output and standard error.
struct Outcome {
    int status = -1; // exit status, 128 + signal, or kNotStarted
    std::string text;

    // Returns the number of lines with this prefix.
    [[nodiscard]] int lines(const std::string& beginning) const;
    [[nodiscard]] bool holds(const std::string& check) const { return lines("ok " + check) > 0; }
};
inline constexpr int kNotStarted = 255;

// Gives the calling process everything that a client can have and that a container must not
// inherit.
void carry_everything();

// Runs `body` in a child process that exits with the result.
Outcome run_process(const std::function<int()>& body);

// Call this in a child process: starts the container and waits for its program. Returns its exit
// status, or prints the error number and returns kNotStarted.
int start_and_wait(const char* id);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

// Waits for a file to appear; throws if it does not. Must not allocate memory: if another thread
// forks at the same time, the child of a program built with a sanitizer can deadlock on a heap lock
// that is held.
void await_file(const std::string& path);

#ifdef ZNC_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Puts directories of ZNC_TEST_DISK in the place of others while it exists: those of a tmpfs cannot
// be id-mapped before Linux 6.3. Does nothing without that variable.
class DiskDirectories {
  public:
    explicit DiskDirectories(std::vector<std::string> places);
    ~DiskDirectories();
    DiskDirectories(const DiskDirectories&) = delete;
    DiskDirectories& operator=(const DiskDirectories&) = delete;

  private:
    std::vector<std::string> places_;
    std::string directory_;
};

// kUsers: with overlay devices, and a user namespace for each container.
enum class Flavour { kPlain, kOverlay, kUsers };

// With sanitizers one flavour is a sample: what differs between them is the kernel's work. All of
// them run with ZNC_TEST_ALL.
inline std::vector<Flavour> flavours()
{
    if (kSanitized && ::getenv("ZNC_TEST_ALL") == nullptr)
        return {Flavour::kUsers};
    return {Flavour::kPlain, Flavour::kOverlay, Flavour::kUsers};
}
inline const auto kFlavours = testing::ValuesIn(flavours());

inline std::string flavour_name(const testing::TestParamInfo<Flavour>& flavour)
{
    return flavour.param == Flavour::kPlain     ? "Plain"
           : flavour.param == Flavour::kOverlay ? "Overlay"
                                                : "Users";
}

class ProbeWorld : public testing::TestWithParam<Flavour> {
  protected:
    static constexpr const char* kStorage = "/tmp/storage";
    static constexpr const char* kBundle = "/tmp/bundle";
    static constexpr const char* kRootfs = "/tmp/bundle/rootfs";

    struct Config {
        std::vector<std::string> args = {"/bin/probe"};
        std::string cwd = "/";
        std::string mounts; // additional members, such as ,"mounts":[...]
        std::vector<std::string> variables;
    };

    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] bool overlay() const { return GetParam() != Flavour::kPlain; }
    // The path of the container's root on the host.
    [[nodiscard]] std::string root() const { return overlay() ? "/overlay/web" : kRootfs; }
    [[nodiscard]] static std::string probe_program();
    [[nodiscard]] pid_t daemon() const { return daemon_->pid(); }
    HostObjects& host() { return *host_; }

    // Plants a symbolic link in the image, replacing what exists there.
    static void plant_link(const std::string& target, const std::string& path);
    static void plant_file(const std::string& path, const std::string& text);

    void configure(const Config& config);
    // Configures the probe with all that it may know about the host.
    void configure_probe(const std::string& use = "all");

    // Creates the container, starts it from a client that first runs `before`, and deletes it.
    Outcome run(const std::function<void()>& before = {});
    void create();
    Outcome start(const std::function<void()>& before = {});
    void destroy();

    // Runs all checks of the probe: none may find an escape, and `held` must be among the checks
    // that passed.
    void expect_confined(const std::function<void()>& before = {},
                         const std::vector<const char*>& checks = {});

  private:
    [[nodiscard]] Ledger quiet_ledger() const;

    std::unique_ptr<DiskDirectories> disk_;
    std::unique_ptr<DaemonProcess> daemon_;
    std::unique_ptr<HostObjects> host_;
    Ledger ledger_;
};

#endif
