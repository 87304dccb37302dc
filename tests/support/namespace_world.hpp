// namespace_world.hpp - real namespaces on a small root filesystem, with a check for leaked mounts,
// descriptors, children and records. Used by the tests of the namespace service.
#ifndef NAMESPACE_WORLD_HPP
#define NAMESPACE_WORLD_HPP

#include "base/owned.hpp"
#include "eventually.hpp"
#include "little_root.hpp"
#include "zarnel/ns.h"
#include "zarnel/spawn.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace namespace_world {

namespace fs = std::filesystem;

inline constexpr int kFlags = 0x1001;
inline constexpr int kKill = 9;
inline constexpr int kTerm = 15;
inline constexpr int kUsr1 = 30; // the library's number; on the host it is 10

using Options = std::vector<const char*>;

inline STATUS mount(nsid_t ns, const char* source, const char* destination, const char* type,
                    Options options)
{
    options.push_back(nullptr);
    return znnsMount(ns, "", source, destination, type, options.data());
}

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::size_t open_descriptors()
{
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd"))
        n++;
    return n;
}

// Returns the number of running or unreaped children of this process.
inline std::size_t children()
{
    std::size_t n = 0;
    std::istringstream list(read_file("/proc/self/task/" + std::to_string(getpid()) + "/children"));
    for (std::string pid; list >> pid;)
        n++;
    return n;
}

inline bool catches(pid_t pid, int hostSignal)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const std::size_t at = status.find("SigCgt:\t");
    return at != std::string::npos &&
           ((std::stoull(status.substr(at + 8, 16), nullptr, 16) >> (hostSignal - 1)) & 1) != 0;
}

class Namespaces : public testing::Test {
  protected:
    void SetUp() override
    {
        root_ = "/tmp/root";
        make_little_root(root_);
        znnsRecover();
        mounts_ = read_file("/proc/self/mountinfo");
        // When the first keeper is created, this process opens the helper's file and keeps it open.
        const nsid_t first = znnsCreate(kFlags);
        ASSERT_GE(first, 0) << std::strerror(errno);
        ASSERT_EQ(znnsDelete(first), OK);
        ASSERT_EQ(znnsShutdown(), 0); // a keeper that has not ended yet still has descriptors
        descriptors_ = open_descriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(znnsShutdown(), 0);
        EXPECT_EQ(read_file("/proc/self/mountinfo"), mounts_);
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_EQ(children(), 0U);
        EXPECT_TRUE(!fs::exists("/run/zarnel/ns") || fs::is_empty("/run/zarnel/ns"));
        fs::remove_all("/tmp/root");
        fs::remove_all("/tmp/out");
    }

    nsid_t rooted(const char* name = "web")
    {
        const nsid_t ns = znnsCreate(kFlags);
        EXPECT_GE(ns, 0) << std::strerror(errno);
        EXPECT_EQ(znnsRootfsCreate(ns, root_.c_str(), name), OK) << std::strerror(errno);
        return ns;
    }

    // Starts a shell command in the namespace, with output to /tmp/out; returns -1 with errno set
    // on failure.
    pid_t start(nsid_t ns, const std::string& command, const char* cwd = "/", int priority = 100)
    {
        const znc::UniqueFd out(::open("/tmp/out", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const znc::UniqueFd keep(::fcntl(1, F_DUPFD_CLOEXEC, 10));
        const znc::UniqueFd keepError(::fcntl(2, F_DUPFD_CLOEXEC, 10));
        ::dup2(out.get(), 1);
        ::dup2(out.get(), 2);
        znSpawnAttr attr;
        znSpawnAttrInit(&attr);
        znSpawnAttrSetNamespace(&attr, ns);
        znSpawnAttrSetCwd(&attr, cwd);
        znSpawnAttrSetPriority(&attr, priority);
        std::string text = command;
        std::array<char*, 4> argv = {const_cast<char*>("sh"), const_cast<char*>("-c"), text.data(),
                                     nullptr};
        std::array<char*, 2> envp = {const_cast<char*>("PATH=/bin"), nullptr};
        pid_t pid = -1;
        const znc::UniqueFd keepInput(closeInput_ ? ::fcntl(0, F_DUPFD_CLOEXEC, 10) : -1);
        if (closeInput_)
            ::close(0);
        const STATUS status =
            znSpawn(&pid, (root_ + "/bin/sh").c_str(), &attr, argv.data(), envp.data());
        const int error = errno;
        if (closeInput_) {
            EXPECT_EQ(::fcntl(0, F_GETFD), -1);
            ::dup2(keepInput.get(), 0);
        }
        ::dup2(keep.get(), 1);
        ::dup2(keepError.get(), 2);
        errno = error;
        return status == OK ? pid : -1;
    }

    int wait(pid_t pid)
    {
        int status = -1;
        EXPECT_EQ(::waitpid(pid, &status, 0), pid);
        return status;
    }

    // Runs a shell command in the namespace and returns its output.
    std::string run(nsid_t ns, const std::string& command, const char* cwd = "/")
    {
        const pid_t pid = start(ns, command, cwd);
        EXPECT_GT(pid, 0) << std::strerror(errno);
        if (pid > 0)
            exit_ = wait(pid);
        return read_file("/tmp/out");
    }

    // Starts programs in the namespace from `threads` threads at once, `rounds` in each, and
    // returns how many ran and succeeded.
    int programs_run_by_threads(nsid_t ns, int threads, int rounds)
    {
        std::atomic<int> good = 0;
        std::vector<std::thread> running;
        for (int t = 0; t < threads; t++)
            running.emplace_back([&] {
                for (int i = 0; i < rounds; i++) {
                    znSpawnAttr attr;
                    znSpawnAttrInit(&attr);
                    znSpawnAttrSetNamespace(&attr, ns);
                    std::array<char*, 2> argv = {const_cast<char*>("true"), nullptr};
                    pid_t pid = -1;
                    int status = -1;
                    if (znSpawn(&pid, (root_ + "/bin/true").c_str(), &attr, argv.data(), nullptr) ==
                            OK &&
                        ::waitpid(pid, &status, 0) == pid && status == 0)
                        good++;
                }
            });
        for (std::thread& thread : running)
            thread.join();
        return good;
    }

    BOOL in_use(nsid_t ns)
    {
        BOOL used = -1;
        EXPECT_EQ(znnsInUse(ns, &used), OK) << std::strerror(errno);
        return used;
    }

    std::string root_;
    std::string mounts_;
    std::size_t descriptors_ = 0;
    int exit_ = -1;
    bool closeInput_ = false; // makes start() close standard input
};

} // namespace namespace_world

#endif
