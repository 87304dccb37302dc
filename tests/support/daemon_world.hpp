// daemon_world.hpp - what tests of many clients, and of a stop, start from: the world of
// system_world.hpp with an overlay, and a look at the daemon itself.
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

    // Ends the daemon as a person would: its exit status.
    int stop_daemon(int hostSignal)
    {
        const int status = daemon_->stop(hostSignal);
        daemon_.reset();
        return status;
    }
    void start_daemon() { daemon_ = std::make_unique<DaemonProcess>(kStorage); }

    // The daemon's memory in KiB.
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
    // A keeper is reaped on the way of a later request, once the parents of its programs have
    // waited for them. Those whose client is gone have the machine's first process for a parent.
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
