// daemon_world.hpp - the fixture for tests with many clients and for tests of stopping the daemon:
// system_world.hpp with an overlay, and access to the daemon process.
#ifndef DAEMON_WORLD_HPP
#define DAEMON_WORLD_HPP

#include "system_world.hpp"

#include <fstream>

class DaemonWorld : public system_world::SystemWorld {
  protected:
    [[nodiscard]] bool overlay() const override { return true; }

    void TearDown() override
    {
        if (daemon_ && !HasFatalFailure())
            reap_keepers();
        SystemWorld::TearDown();
    }

    // Sends the signal to the daemon; returns its exit status.
    int stop_daemon(int hostSignal)
    {
        const int status = daemon_->stop(hostSignal);
        daemon_.reset();
        return status;
    }
    void start_daemon() { daemon_ = std::make_unique<DaemonProcess>(kStorage); }

    // Returns the memory of the daemon in KiB.
    [[nodiscard]] long daemon_memory() const
    {
        const std::string key = "VmRSS:";
        std::ifstream status("/proc/" + std::to_string(daemon()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with(key))
                return std::strtol(line.c_str() + key.size(), nullptr, 10);
        return 0;
    }

  private:
    // The daemon reaps a keeper during a later request, once the parents of its programs have
    // waited for them. Programs whose client has ended are children of PID 1.
    void reap_keepers() const
    {
        bool works = true;
        EXPECT_TRUE(eventually([&] {
            if (!works || daemon_->is_idle())
                return true;
            works = zncCreate("warm", kBundle, 0, nullptr) == OK && zncDelete("warm", 0) == OK;
            return false;
        }));
        EXPECT_TRUE(works) << std::hex << errno;
    }
};

#endif
