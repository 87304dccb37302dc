// system_world.hpp - a real daemon and a bundle with busybox for each test, checked with the
// ledger. The parameter says whether the overlay filesystem is used. A test program lists
// daemon_process.cpp and ledger.cpp of this directory in its sources.
#ifndef SYSTEM_WORLD_HPP
#define SYSTEM_WORLD_HPP

#include "bundle.hpp"
#include "daemon_process.hpp"
#include "eventually.hpp"
#include "ledger.hpp"
#include "test_size.hpp"
#include "zncontainer.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace system_world {

namespace fs = std::filesystem;

struct Free {
    void operator()(char* text) const { std::free(text); }
};

// Takes ownership of text returned by the library; returns "(none)" for NULL.
inline std::string text_of(char* text)
{
    const std::unique_ptr<char, Free> owned(text);
    return text != nullptr ? text : "(none)";
}

inline int exit_code(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts `body` in a child process that exits with the result, or is killed by SIGALRM if it hangs.
inline pid_t begin_child(const std::function<int()>& body)
{
    constexpr unsigned kHangSeconds = 180;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(kHangSeconds);
        ::_exit(body());
    }
    return pid;
}
inline int run_child(const std::function<int()>& body)
{
    return exit_code(begin_child(body));
}

class SystemWorld : public testing::TestWithParam<bool> {
  protected:
    static constexpr const char* kStorage = "/tmp/storage";
    static constexpr const char* kBundle = "/tmp/bundle";
    static constexpr int kKill = 9;

    [[nodiscard]] virtual bool overlay() const { return GetParam(); }
    [[nodiscard]] pid_t daemon() const { return daemon_->pid(); }
    // The path of the container's root on the host.
    [[nodiscard]] std::string root() const
    {
        return overlay() ? "/overlay/web" : std::string(kBundle) + "/rootfs";
    }

    // Hooks that run before the daemon starts and after it has ended.
    virtual void before_daemon() {}
    virtual void after_daemon() {}

    void SetUp() override
    {
        if (!overlay()) { // a dangling link prevents the daemon from creating it
            fs::remove("/overlay");
            fs::create_symlink("/none", "/overlay");
        }
        before_daemon();
        daemon_ = std::make_unique<DaemonProcess>(kStorage);
        make_bundle(kBundle, {"/bin/true"});
        // When the daemon creates its first container, it opens its helper and creates the storage
        // area, and keeps both.
        ASSERT_EQ(zncCreate("warm", kBundle, 0, nullptr), OK) << std::hex << errno;
        ASSERT_EQ(zncDelete("warm", 0), OK);
        settle();
    }

    void TearDown() override
    {
        if (daemon_ && !HasFatalFailure()) {
            EXPECT_EQ(left_over(), "");
            EXPECT_EQ(daemon_->stop(SIGTERM), 0);
        }
        daemon_.reset();
        after_daemon();
        fs::remove_all(kStorage);
        fs::remove_all(kBundle);
        if (!overlay()) {
            fs::remove("/overlay");
            fs::create_directory("/overlay");
        }
    }

    // The daemon closes a client's queue after the client has received its reply, reaps keepers
    // during the next request or some seconds later, and deletes files in a thread of its own: the
    // ledger is one that does not change any more.
    void settle()
    {
        EXPECT_TRUE(eventually([this] {
            const Ledger before = Ledger::take(kStorage, daemon());
            const bool idle = daemon_->is_idle();
            ledger_ = Ledger::take(kStorage, daemon());
            return idle && ledger_.compared_with(before).empty();
        }));
    }

    // Returns what was added or removed since the ledger was taken, except for lines that contain
    // `expected`. Sends requests to the daemon until nothing is left or the rest is considered
    // permanent.
    [[nodiscard]] std::string left_over(const std::string& expected = "") const
    {
        std::string left;
        static_cast<void>(eventually([&] {
            std::istringstream lines(Ledger::take(kStorage, daemon()).compared_with(ledger_));
            left.clear();
            for (std::string line; std::getline(lines, line);)
                if (expected.empty() || line.find(expected) == std::string::npos)
                    left += line + "\n";
            return left.empty() || zncDaemonIsAlive() == FALSE;
        }));
        return left;
    }

    // Creates, starts and deletes the container "web".
    static void expect_usable()
    {
        make_bundle(kBundle, {"/bin/true"});
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
        EXPECT_GT(zncStart("web", 0), 0) << std::hex << errno;
        EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
        EXPECT_EQ(text_of(zncList()), "[]");
    }

    std::unique_ptr<DaemonProcess> daemon_;

  private:
    Ledger ledger_;
};

inline std::string flavour_name(const testing::TestParamInfo<bool>& flavour)
{
    return flavour.param ? "Overlay" : "Plain";
}

} // namespace system_world

#endif
