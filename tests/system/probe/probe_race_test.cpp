// Tests with trees that change during operations of the runtime: whatever it mounts, creates or
// deletes while links and directories are exchanged, the host does not change.

#include "probe_world.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Exchanges two names continuously.
class Swapper {
  public:
    Swapper(std::string one, std::string other)
        : one_(std::move(one)), other_(std::move(other)), thread_([this] {
              while (!stop_) {
                  for (int i = 0; i < kAtOnce; i++)
                      if (::renameat2(AT_FDCWD, one_.c_str(), AT_FDCWD, other_.c_str(),
                                      RENAME_EXCHANGE) == 0)
                          flips_++;
                  std::this_thread::yield();
              }
          })
    {
    }
    ~Swapper()
    {
        stop_ = true;
        thread_.join();
    }
    Swapper(const Swapper&) = delete;
    Swapper& operator=(const Swapper&) = delete;
    [[nodiscard]] unsigned long flips() const { return flips_; }

  private:
    static constexpr int kAtOnce = 9; // odd, so that the state alternates at every pause
    std::string one_;
    std::string other_;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned long> flips_{0};
    std::thread thread_;
};

// Rounds continue until there were this many exchanges. PROBE_FLIPS sets a larger number; without
// it a busy machine stops earlier.
class Rounds {
  public:
    bool more(const Swapper& swapper)
    {
        const char* asked = std::getenv("PROBE_FLIPS");
        const unsigned long wanted = asked != nullptr ? std::stoul(asked) : 5000;
        const bool enough =
            swapper.flips() >= wanted || (asked == nullptr && done_ >= kRoundsAtMost);
        return done_++ < kRoundsAtLeast || !enough;
    }

  private:
    static constexpr int kRoundsAtLeast = 50;
    static constexpr int kRoundsAtMost = 250;
    int done_ = 0;
};

class ProbeRace : public ProbeWorld {
  protected:
    void SetUp() override
    {
        ProbeWorld::SetUp();
        write_file("/tmp/data/file", "of a volume");
        fs::create_directories(std::string(kRootfs) + "/swap/sub");
        volume_ = tree_text("/tmp/data");
    }
    void TearDown() override
    {
        EXPECT_EQ(tree_text("/tmp/data"), volume_);
        fs::remove_all("/tmp/data");
        ProbeWorld::TearDown();
    }

    // Creates and deletes the container while /swap alternates between a directory and `target`.
    void race(const std::string& target, const std::string& mounts)
    {
        Config config;
        config.args = {"/bin/probe", "true"};
        config.mounts = R"(,"mounts":[)" + mounts + "]";
        configure(config);
        const std::string link = std::string(kRootfs) + "/swap-link";
        fs::remove_all(link);
        fs::create_symlink(target, link);
        int created = 0;
        int refused = 0;
        unsigned long flips = 0;
        {
            const Swapper swapper(std::string(kRootfs) + "/swap", link);
            for (Rounds rounds; rounds.more(swapper);) {
                if (zncCreate("web", kBundle, 0, nullptr) == OK) {
                    created++;
                    ASSERT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
                } else {
                    refused++;
                    ASSERT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED) << std::hex << errno;
                }
            }
            flips = swapper.flips();
        }
        EXPECT_EQ(host().changes(), "") << target;
        std::printf("%s: %lu exchanges, %d created, %d refused\n", target.c_str(), flips, created,
                    refused);
        restore();
    }

    std::string volume_;

  private:
    // Makes "swap" a directory again, whatever the last exchange left.
    static void restore()
    {
        for (const char* name : {"/swap", "/swap-link"})
            fs::remove_all(std::string(kRootfs) + name);
        fs::create_directories(std::string(kRootfs) + "/swap/sub");
    }
};

INSTANTIATE_TEST_SUITE_P(All, ProbeRace, kFlavours, flavour_name);

constexpr const char* kTargets[] = {"/tmp/outside", "../../../../../../../tmp/outside",
                                    "/proc/1/root/tmp/outside", "/proc/self/fd"};

TEST_P(ProbeRace, CVE_2021_30465_CVE_2019_19921_MountsStayInsideWhileTheirWayIsSwapped)
{
    for (const char* target : kTargets)
        race(target, R"({"type":"bind","source":"/tmp/data","destination":"/swap/sub"})");
}

TEST_P(ProbeRace, CVE_2024_45310_NoMountPointIsMadeOutside)
{
    for (const char* target : kTargets)
        race(target,
             R"({"type":"bind","source":"/tmp/data","destination":"/swap/new/deep"},)"
             R"({"type":"bind","source":"/tmp/data/file","destination":"/swap/sub/new-file"},)"
             R"({"type":"tmpfs","destination":"/swap/sub/../../swap/tmp"})");
}

TEST_P(ProbeRace, CVE_2023_27561_ProcAndDevMaySwapWithLinks)
{
    for (const char* name : {"proc", "dev", "sys"})
        for (const char* target : {"/tmp/outside", "/swap"}) {
            Config config;
            config.args = {"/bin/probe", "true"};
            configure(config);
            const std::string place = std::string(kRootfs) + "/" + name;
            fs::create_symlink(target, place + "-link");
            {
                const Swapper swapper(place, place + "-link");
                for (Rounds rounds; rounds.more(swapper);) {
                    // If a directory disappears between the check and the mount, the root is
                    // refused.
                    if (zncCreate("web", kBundle, 0, nullptr) == OK) {
                        ASSERT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
                    }
                }
            }
            EXPECT_EQ(host().changes(), "") << name << " -> " << target;
            fs::remove_all(place);
            fs::remove_all(place + "-link");
            fs::create_directory(place);
        }
}

TEST_P(ProbeRace, PathsWithDotsAreFoundWhileOthersRename)
{
    write_file("/tmp/one", "");
    write_file("/tmp/other", "");
    fs::create_directory_symlink("../etc/../etc", std::string(kRootfs) + "/tmp/conf");
    Config config;
    config.args = {"/bin/probe", "true"};
    config.cwd = "/tmp/conf/../tmp/../tmp/conf";
    config.mounts =
        R"(,"mounts":[{"type":"tmpfs","destination":"/tmp/../swap/../tmp/conf/../new/point"}])";
    configure(config);
    const Swapper swapper("/tmp/one", "/tmp/other");
    for (Rounds rounds; rounds.more(swapper);)
        ASSERT_EQ(run().status, 0);
    fs::remove("/tmp/one");
    fs::remove("/tmp/other");
}

TEST_P(ProbeRace, LinksStaticallyInTheWayOfMountsLeadInside)
{
    for (const char* target : kTargets) {
        const std::string link = std::string(kRootfs) + "/link";
        fs::create_symlink(target, link);
        Config config;
        config.args = {"/bin/probe", "true"};
        for (const char* destination :
             {"/link", "/link/point", "/link/../link/point", "/link/file"}) {
            config.mounts =
                std::string(R"(,"mounts":[{"type":"bind","source":"/tmp/data","destination":")") +
                destination + R"("}])";
            configure(config);
            if (zncCreate("web", kBundle, 0, nullptr) == OK)
                destroy();
            EXPECT_EQ(host().changes(), "") << destination << " -> " << target;
        }
        fs::remove(link);
    }
}

TEST_P(ProbeRace, MountsInsideDoNotReachASharedHost)
{
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_SHARED, nullptr), 0);
    Config config;
    config.args = {"/bin/probe", "true"};
    config.mounts = R"(,"mounts":[{"type":"tmpfs","destination":"/scratch"},)"
                    R"({"type":"bind","source":"/tmp/data","destination":"/data"},)"
                    R"({"type":"tmpfs","destination":"/data/below"}])";
    fs::create_directory("/tmp/data/below");
    configure(config);
    const std::string before = read_file("/proc/self/mountinfo");
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    const std::string during = read_file("/proc/self/mountinfo");
    destroy();
    fs::remove("/tmp/data/below");
    EXPECT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    // Only the container's device may have been added.
    const auto lines = [](const std::string& text) {
        return std::count(text.begin(), text.end(), '\n');
    };
    EXPECT_EQ(lines(during), lines(before) + (overlay() ? 1 : 0)) << during;
    volume_ = tree_text("/tmp/data");
}

} // namespace
