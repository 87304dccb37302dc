// A timer interrupts the daemon's task and the client's every millisecond; no call may be affected.

#include "layered_image.hpp"
#include "running_daemon.hpp"
#include "system_world.hpp"
#include "zarnel/msgq.h"
#include "zarnel/ns.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>

using namespace system_world;

namespace {

constexpr long kPeriodNs = 1000000;
std::atomic<long> interruptions{0};

void count(int /*signal*/)
{
    interruptions++;
}

// Interrupts one thread during the lifetime of this object. The handler does not restart system
// calls.
class Interrupter {
  public:
    explicit Interrupter(pid_t task)
    {
        struct sigaction action = {};
        action.sa_handler = count;
        ::sigaction(SIGALRM, &action, nullptr);
        struct sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event._sigev_un._tid = task;
        const struct itimerspec period = {{0, kPeriodNs}, {0, kPeriodNs}};
        if (::timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0 ||
            ::timer_settime(timer_, 0, &period, nullptr) != 0)
            throw std::runtime_error("timer");
    }
    ~Interrupter() { ::timer_delete(timer_); }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

  private:
    timer_t timer_ = nullptr;
};

std::vector<pid_t> tasks()
{
    std::vector<pid_t> all;
    for (const auto& entry : fs::directory_iterator("/proc/self/task"))
        all.push_back(std::stoi(entry.path().filename()));
    return all;
}

class Storm : public testing::TestWithParam<bool> {
  protected:
    static constexpr const char* kBundle = "/tmp/bundle";

    void SetUp() override
    {
        if (!GetParam())
            fs::remove("/overlay");
        ::setenv("ZNC_BASE", "/tmp/storage", 1);
        ASSERT_EQ(znMsgQLimitsRaise(32, 2048), OK);
        make_bundle(kBundle, {"/bin/sh", "-c", "sleep 0.02; exit 0"},
                    R"(,"mounts":[{"source":"tmpfs","destination":"/tmp","type":"tmpfs"}])");
        layout::Layout("/tmp/layout").add(layered_image::image_of(1, 20));
        life(); // after its first container the daemon keeps its helper open
        before_ = Ledger::take("/tmp/storage", ::getpid());
    }
    void TearDown() override
    {
        EXPECT_EQ(znnsShutdown(), 0);
        EXPECT_EQ(Ledger::take("/tmp/storage", ::getpid()).compared_with(before_), "");
        for (const char* path : {"/tmp/storage", "/tmp/layout", kBundle})
            fs::remove_all(path);
        fs::create_directories("/overlay");
        ::unsetenv("ZNC_BASE");
    }

    // Makes every call once.
    static void life()
    {
        const RunningDaemon daemon;
        calls();
    }
    static void calls()
    {
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
        EXPECT_NE(text_of(zncContainerInfoGet("web")), "(none)") << std::hex << errno;
        const pid_t program = zncStart("web", 0);
        EXPECT_GT(program, 0) << std::hex << errno;
        EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED) << std::hex << errno;
        EXPECT_EQ(zncKill("web", 15, 0), OK) << std::hex << errno;
        EXPECT_NE(text_of(zncList()).find("\"web\""), std::string::npos);
        EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
        const std::string image = "/tmp/image";
        EXPECT_EQ(zncUnpack(image.c_str(), "/tmp/layout", nullptr, 0, nullptr), OK)
            << std::hex << errno;
        EXPECT_NE(text_of(zncImageInfoGet("/tmp/layout")), "(none)") << std::hex << errno;
        EXPECT_EQ(zncImageBundleDelete(image.c_str()), OK);
        fs::remove_all("/tmp/storage/layers");
    }

    Ledger before_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Storm, testing::Values(false, true), flavour_name);

TEST_P(Storm, CallsSurviveASignalStorm)
{
    const int lives = size_of("STORM_LIVES", 50);
    interruptions = 0;
    {
        const RunningDaemon daemon;
        std::vector<std::unique_ptr<Interrupter>> interrupters;
        for (const pid_t task : tasks())
            interrupters.push_back(std::make_unique<Interrupter>(task));
        for (int i = 0; i < lives && !HasFailure(); i++)
            calls();
    }
    std::printf("%d lives, %ld interruptions\n", lives, interruptions.load());
    EXPECT_GT(interruptions.load(), lives);
}

} // namespace
