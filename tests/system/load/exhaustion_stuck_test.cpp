// Tests with containers that resist being stopped, and with obstacles to unmounting.

#include "process_limit.hpp"
#include "spare_processes.hpp"
#include "system_world.hpp"

#include <fcntl.h>
#include <fstream>

using namespace system_world;

namespace {

std::string field_of(pid_t pid, const std::string& name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(name + ":", 0) == 0)
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    return "";
}

pid_t only_child(pid_t parent)
{
    const std::string id = std::to_string(parent);
    std::ifstream list("/proc/" + id + "/task/" + id + "/children");
    pid_t pid = -1;
    list >> pid;
    return pid;
}

class Stuck : public SystemWorld {
  protected:
    // Starts "web" with a shell script from a client process, which waits for the program; returns
    // when the script has created /tmp/ready.
    void begin(const std::string& script, const std::function<void()>& before = {})
    {
        make_bundle(kBundle, {"/bin/sh", "-c", script});
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
        client_ = begin_child([&] {
            if (before)
                before();
            ::dup2(::open("/dev/null", O_RDWR | O_CLOEXEC), 2);
            if (zncStart("web", ZNC_OPT_NO_WAIT) != OK)
                return 2;
            std::ofstream(kStarted) << "x";
            return ::waitpid(-1, nullptr, 0) > 0 ? 0 : 3;
        });
        ASSERT_TRUE(
            eventually([&] { return fs::exists(root() + "/tmp/ready") && fs::exists(kStarted); }));
        fs::remove(kStarted);
    }
    // Deletes the container by force: the program ends, so the client returns.
    void end()
    {
        EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
        EXPECT_EQ(exit_code(client_), 0);
        EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN);
        fs::remove(std::string(kBundle) + "/rootfs/tmp/ready");
        expect_usable();
    }
    [[nodiscard]] pid_t client() const { return client_; }

  private:
    static constexpr const char* kStarted = "/tmp/started";
    pid_t client_ = -1;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Stuck, testing::Values(false, true), flavour_name);

TEST_P(Stuck, AStoppedProgramIsDeleted)
{
    begin("touch /tmp/ready; kill -STOP $$; sleep 1000");
    const pid_t program = only_child(client());
    EXPECT_TRUE(eventually([&] { return field_of(program, "State")[0] == 'T'; }));
    EXPECT_EQ(zncDelete("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    end();
}

TEST_P(Stuck, AProgramThatForksForEverIsDeleted)
{
    begin("f() { [ -e /tmp/ready ] || touch /tmp/ready; f & }; f; sleep 1000");
    end();
}

TEST_P(Stuck, AForkBombIsDeleted)
{
    const ProcessLimit limit;
    if (!limit.there())
        GTEST_SKIP() << "no control group for processes";
    begin("f() { touch /tmp/ready; f & f; }; f", [&] {
        limit.set("150");
        limit.add(::getpid());
    });
    end();
}

TEST_P(Stuck, ProcessesInTheRootAndOpenFilesDoNotPreventDeletion)
{
    begin("touch /tmp/ready; sleep 1000");
    const fs::path usual = fs::current_path();
    fs::current_path(root() + "/tmp");
    const int file = ::open("ready", O_RDWR | O_CLOEXEC);
    EXPECT_GE(file, 0);
    end();
    EXPECT_EQ(left_over(), ""); // while both locks are held
    ::close(file);
    fs::current_path(usual);
}

// A namespace ends only when its program has been reaped by its parent. From then on no client
// sends a request to the daemon.
TEST_P(Stuck, AnEndedNamespaceGoesWithoutAnotherRequest)
{
    make_bundle(kBundle, {"/bin/sleep", "1000"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    const auto keepers = [&] { return spare_processes::named(daemon(), "zn-keeper"); };
    ASSERT_EQ(keepers().size(), 1U);
    const pid_t keeper = *keepers().begin();
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_NE(field_of(keeper, "State"), ""); // the keeper still exists because of its program
    ASSERT_GT(::waitpid(-1, nullptr, 0), 0);
    EXPECT_TRUE(eventually([&] { return keepers().empty() && field_of(keeper, "State") == ""; }));
}

TEST_P(Stuck, OrphansAreReapedWhileTheContainerLives)
{
    const int cycles = size_of("EXHAUSTION_ORPHANS", 100);
    begin("i=0; while [ $i -lt " + std::to_string(cycles) +
          " ]; do sh -c '(sleep 0 & sleep 0 &) &'; i=$((i+1)); done; touch /tmp/ready; sleep 1000");
    const pid_t program = only_child(client());
    const std::string keeper = std::to_string(only_child(daemon()));
    const fs::path ns = fs::read_symlink("/proc/" + std::to_string(program) + "/ns/pid");
    const auto in_it = [&] {
        int count = 0;
        for (const auto& entry : fs::directory_iterator("/proc")) {
            std::error_code error;
            // The namespace of a zombie cannot be read: it is recognized by its parent, the keeper.
            const std::string name = entry.path().filename();
            if (name.find_first_not_of("0123456789") != std::string::npos)
                continue;
            const fs::path its = fs::read_symlink(entry.path() / "ns/pid", error);
            const bool orphan = field_of(std::stoi(name), "PPid") == keeper;
            count += (!error && its == ns) || orphan ? 1 : 0;
        }
        return count;
    };
    // The shell, the sleep it waits for, and the keeper.
    EXPECT_TRUE(eventually([&] { return in_it() <= 3; })) << in_it();
    end();
}

// During a long unmount, other clients wait their turn. A client that waits too long gets an error,
// and the container is removed nevertheless.
class SlowUnmount : public Stuck {
  protected:
    void delay(const std::string& microseconds)
    {
        tracer_ = ::fork();
        if (tracer_ == 0) {
            const std::string inject = "inject=umount2:delay_enter=" + microseconds;
            const std::string pid = std::to_string(daemon());
            ::execlp("strace", "strace", "-qq", "-o", "/dev/null", "-e", "trace=umount2", "-e",
                     inject.c_str(), "-p", pid.c_str(), nullptr);
            ::_exit(127);
        }
        ASSERT_TRUE(eventually([&] { return field_of(daemon(), "TracerPid") != "0"; }));
    }
    void no_delay()
    {
        ::kill(tracer_, SIGTERM);
        exit_code(tracer_);
    }

  private:
    pid_t tracer_ = -1;
};

// The daemon unmounts only overlay devices; all other mounts end with their namespace.
INSTANTIATE_TEST_SUITE_P(Overlay, SlowUnmount, testing::Values(true), flavour_name);

TEST_P(SlowUnmount, OthersAreAnsweredAfterwards)
{
    begin("touch /tmp/ready; sleep 1000");
    delay("1500000");
    const pid_t other = begin_child([] {
        while (zncStatusGet("web") == STATE_RUNNING) {
        }
        return text_of(zncList()) == "[]" ? 0 : 1;
    });
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    EXPECT_EQ(exit_code(other), 0);
    no_delay();
    EXPECT_EQ(exit_code(client()), 0);
    expect_usable();
}

TEST_P(SlowUnmount, LongerThanAClientWaitsIsAnErrorAndTheContainerGoes)
{
    begin("touch /tmp/ready; sleep 1000");
    delay("7000000");
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), ERROR);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(eventually([] { return text_of(zncList()) == "[]"; }));
    no_delay();
    EXPECT_EQ(exit_code(client()), 0);
    expect_usable();
}

} // namespace
