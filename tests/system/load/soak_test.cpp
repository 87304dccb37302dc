// Long-running test: thousands of container life cycles and failed creates leave nothing behind and
// do not make the daemon grow. The suite uses small sizes; SOAK_CYCLES and SOAK_FAILURES set
// others.

#include "system_world.hpp"

#include <fstream>

using namespace system_world;

namespace {

[[maybe_unused]] constexpr long kGrowthKiB = 1024; // sanitizers retain memory

class Soak : public SystemWorld {
  protected:
    // Returns the private memory of the daemon in KiB.
    [[nodiscard]] long memory() const
    {
        std::ifstream map("/proc/" + std::to_string(daemon()) + "/smaps_rollup");
        long sum = 0;
        for (std::string name; map >> name;)
            if (name == "Private_Dirty:" || name == "Private_Clean:") {
                long kib = 0;
                map >> kib;
                sum += kib;
            }
        return sum;
    }

    // Runs `cycle` that many times; memory is first measured after a tenth of them.
    void repeat(int cycles, const std::function<void(int)>& cycle)
    {
        for (int i = 0; i < cycles / 10 && !HasFailure(); i++)
            cycle(i);
        const long before = memory();
        for (int i = 0; i < cycles && !HasFailure(); i++)
            cycle(i);
        const long growth = memory() - before;
        std::printf("%d cycles: %ld KiB, grown by %ld KiB\n", cycles, before, growth);
        EXPECT_GT(before, 0);
#ifndef ZNC_SANITIZED // sanitizers retain freed memory
        EXPECT_LT(growth, kGrowthKiB);
#endif
        EXPECT_EQ(text_of(zncList()), "[]");
        EXPECT_EQ(left_over(), "");
    }
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Soak, testing::Values(false, true), flavour_name);

TEST_P(Soak, LivesOfContainersLeaveNothingAndTheDaemonDoesNotGrow)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "echo x > /tmp/file; (sleep 0 &); exit 0"},
                R"(,"mounts":[{"source":"tmpfs","destination":"/tmp","type":"tmpfs"},
                              {"source":"/etc","destination":"/etc","type":"bind",
                               "options":["ro"]}])");
    repeat(size_of("SOAK_CYCLES", 300), [](int i) {
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << i << " " << std::hex << errno;
        if (i % 2 == 0) {
            ASSERT_GT(zncStart("web", 0), 0) << i << " " << std::hex << errno;
        } else { // killed, perhaps before its shell starts; the daemon is also a child
            ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK) << i << " " << std::hex << errno;
            ASSERT_EQ(zncKill("web", kKill, ZNC_OPT_WHOLE_NAMESPACE), OK) << i;
            ASSERT_GT(::waitpid(-1, nullptr, 0), 0) << i;
        }
        ASSERT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << i << " " << std::hex << errno;
    });
}

TEST_P(Soak, CreatesAndStartsThatFailLeaveNothing)
{
    const std::string bundles = "/tmp/bundles/";
    make_bundle(bundles + "mount", {"/bin/true"},
                R"(,"mounts":[{"source":"tmpfs","destination":"/tmp","type":"tmpfs"},
                              {"source":"/none","destination":"/etc","type":"bind"}])");
    make_bundle(bundles + "program", {"/bin/none"});
    make_bundle(bundles + "root", {"/bin/true"});
    fs::remove_all(bundles + "root/rootfs");
    make_bundle(bundles + "text", {"/bin/true"});
    std::ofstream(bundles + "text/config.json") << "{";
    // After a failure because of a missing root, the upper directory is kept for the next create
    // with the id.
    constexpr int kKinds = 5;
    const std::pair<std::string, int> kinds[kKinds] = {
        {"none", S_zncLib_BUNDLE_CONFIG_NOT_EXIST},
        {"text", S_zncLib_RUNTIME_CONFIG_LOAD_FAILED},
        {"root", S_zncLib_ROOTFS_CREATE_FAILED},
        {"mount", S_zncLib_ADDITIONAL_MOUNT_FAILED},
        {"program", 0}};
    ::setenv("ZNC_VERBOSE", "0", 1);
    repeat(size_of("SOAK_FAILURES", 250), [&](int i) {
        const auto& [bundle, number] = kinds[i % kKinds];
        const STATUS created = zncCreate("web", (bundles + bundle).c_str(), 0, nullptr);
        if (number != 0) {
            ASSERT_EQ(created, ERROR) << bundle;
            ASSERT_EQ(errno, number) << bundle << std::hex << errno;
            return;
        }
        ASSERT_EQ(created, OK) << std::hex << errno;
        ASSERT_EQ(zncStart("web", 0), ERROR);
        ASSERT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED) << std::hex << errno;
        ASSERT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    });
    ::unsetenv("ZNC_VERBOSE");
    fs::remove_all(bundles);
}

} // namespace
