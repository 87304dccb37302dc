// cgroup_world.hpp - real control groups below one named after this process, and processes in them.
// Used by the tests of control groups. The groups are removed when a test ends, also if it
// fails; after a crash, by the next test.
#ifndef CGROUP_WORLD_HPP
#define CGROUP_WORLD_HPP

#include "cgroup/cgroup_tree.hpp"
#include "eventually.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace cgroup_world {

namespace fs = std::filesystem;

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::string all = text.str();
    while (!all.empty() && all.back() == '\n')
        all.pop_back();
    return all;
}

// The directories of a group, by hierarchy.
inline std::vector<std::string> directories(const zn::Hierarchies& in, const std::string& path)
{
    std::vector<std::string> found;
    for (const zn::Hierarchy& one : in.all)
        if (fs::is_directory(one.point.get() + path))
            found.push_back(one.point.get() + path);
    return found;
}

// A child process in a group. Ends with the object, which waits for it.
class Child {
  public:
    // Runs `work` in the group; its result is the exit code. 125: it could not enter.
    Child(const zn::Hierarchies& in, const std::string& path, const std::function<int()>& work)
    {
        zn::List<zn::Text> entries;
        EXPECT_EQ(zn::cgroup_entries(in, path.c_str(), entries), 0);
        int ready[2];
        EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
        // ThreadSanitizer starts a thread in each child of fork(), and the kernel counts threads.
        pid_ = ::_Fork();
        if (pid_ == 0) {
            for (const zn::Text& entry : entries) {
                const int fd = ::open(entry.get(), O_WRONLY | O_CLOEXEC);
                if (fd < 0 || ::write(fd, "0", 1) != 1)
                    ::_exit(125);
                ::close(fd);
            }
            if (::write(ready[1], "", 1) != 1)
                ::_exit(125);
            ::_exit(work());
        }
        ::close(ready[1]);
        char byte = 0;
        entered_ = ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
    }
    ~Child()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] bool entered() const { return entered_; }
    // The wait status.
    int wait()
    {
        int status = -1;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        return status;
    }
    // The exit code; -1 if a signal ended it.
    int code()
    {
        const int status = wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    bool entered_ = false;
};

inline int sleep_for_ever()
{
    for (;;)
        ::pause();
}

// Runs a function in a child process and returns its exit code; for what changes a whole process.
inline int in_child(const std::function<int()>& work)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(work());
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Memory that this process and its children share.
template <class T> class Shared {
  public:
    Shared()
        : at_(static_cast<T*>(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
    }
    ~Shared() { ::munmap(at_, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    T& operator*() const { return *at_; }

  private:
    T* at_;
};

// Removes the groups of tests that crashed.
inline void remove_left_groups(const zn::Hierarchies& in)
{
    constexpr std::string_view kPrefix = "znc-test-";
    std::vector<std::string> left;
    for (const zn::Hierarchy& one : in.all)
        for (const auto& entry : fs::directory_iterator(one.point.get())) {
            const std::string name = entry.path().filename();
            if (name.starts_with(kPrefix) &&
                ::kill(std::atoi(name.c_str() + kPrefix.size()), 0) != 0 && errno == ESRCH)
                left.push_back("/" + name);
        }
    for (const std::string& path : left)
        EXPECT_EQ(zn::cgroup_remove(in, path.c_str()), 0) << path;
}

class Cgroups : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(zn::hierarchies_read(in_), 0);
        if (in_.version == zn::CgroupVersion::kNone)
            GTEST_SKIP() << "this machine lets nobody create control groups";
        remove_left_groups(in_);
        top_ = "/znc-test-" + std::to_string(::getpid());
        path_ = top_ + "/web";
    }

    void TearDown() override
    {
        EXPECT_EQ(zn::cgroup_remove(in_, top_.c_str()), 0);
        EXPECT_EQ(directories(in_, top_), std::vector<std::string>());
    }

    int create(const zn::Resources& resources = zn::Resources())
    {
        return zn::cgroup_create(in_, path_.c_str(), resources, &field_);
    }
    int limit(const zn::Resources& resources)
    {
        return zn::cgroup_limit(in_, path_.c_str(), resources, &field_);
    }
    [[nodiscard]] std::string field() const { return field_ != nullptr ? field_ : ""; }

    // The content of the group's control file in the hierarchy that has it: by its name in v1, or
    // in v2 where the group has no such file.
    [[nodiscard]] std::string value(const std::string& v1, const std::string& v2) const
    {
        for (const std::string& name : {v1, v2})
            for (const std::string& directory : directories(in_, path_))
                if (!name.empty() && fs::exists(directory + "/" + name))
                    return read_file(directory + "/" + name);
        return "no such file";
    }
    [[nodiscard]] bool has(const std::string& v1, const std::string& v2) const
    {
        return value(v1, v2) != "no such file";
    }
    // Whether the hierarchy of a controller is v2.
    [[nodiscard]] bool unified(zn::Controller controller) const
    {
        const zn::Hierarchy* one = in_.with(controller);
        return one != nullptr && one->unified;
    }
    // Works on the v2 hierarchy alone from now on. False if there is none.
    bool use_unified_only()
    {
        zn::Hierarchies one;
        for (const zn::Hierarchy& each : in_.all)
            if (each.unified) {
                EXPECT_EQ(zn::hierarchies_add(one, each.point.get(), true, 0), 0);
            }
        if (one.all.empty())
            return false;
        in_ = std::move(one);
        return true;
    }

    zn::Hierarchies in_;
    std::string top_;
    std::string path_;
    const char* field_ = nullptr;
};

} // namespace cgroup_world

#endif
