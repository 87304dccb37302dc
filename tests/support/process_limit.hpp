// process_limit.hpp - a control group for this test that limits the number of processes.
#ifndef PROCESS_LIMIT_HPP
#define PROCESS_LIMIT_HPP

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <unistd.h>

// Usable only if the kernel supports such groups and the test may create one.
class ProcessLimit {
  public:
    ProcessLimit()
    {
        for (const char* top : {"/sys/fs/cgroup/pids", "/sys/fs/cgroup"}) {
            const std::string group = std::string(top) + "/znc-test-" + std::to_string(::getpid());
            std::error_code error;
            if (!std::filesystem::exists(std::string(top) + "/cgroup.procs") ||
                !std::filesystem::create_directory(group, error))
                continue;
            if (std::filesystem::exists(group + "/pids.max")) {
                group_ = group;
                top_ = top;
                return;
            }
            std::filesystem::remove(group, error);
        }
    }
    ~ProcessLimit()
    {
        if (!there())
            return;
        std::ifstream list(group_ + "/cgroup.procs");
        for (std::string pid; list >> pid;)
            std::ofstream(top_ + "/cgroup.procs") << pid;
        std::error_code error;
        for (int tries = 0; tries < 100 && !std::filesystem::remove(group_, error); tries++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ProcessLimit(const ProcessLimit&) = delete;
    ProcessLimit& operator=(const ProcessLimit&) = delete;

    [[nodiscard]] bool there() const { return !group_.empty(); }
    void add(pid_t pid) const { std::ofstream(group_ + "/cgroup.procs") << pid; }
    void set(const std::string& most) const { std::ofstream(group_ + "/pids.max") << most; }

  private:
    std::string group_;
    std::string top_;
};

#endif
