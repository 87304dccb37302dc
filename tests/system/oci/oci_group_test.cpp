// Control groups of zncrun's containers, with v1 and v2 (scripts/vm-test.sh). Needs zncrun: named
// by ZNCRUN, or in the directory of this program.
#include "bundle.hpp"
#include "eventually.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

struct Result {
    int status = -1;
    std::string out; // with standard error
};

class OciGroup : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!fs::exists("/sys/fs/cgroup/cgroup.controllers") && !fs::exists("/sys/fs/cgroup/pids"))
            GTEST_SKIP() << "this machine has no control groups";
    }
    void TearDown() override
    {
        zncrun("delete --force " + id_);
        EXPECT_FALSE(fs::exists(group("pids")));
        fs::remove_all(kWork);
    }

    static Result zncrun(const std::string& words)
    {
        const char* named = std::getenv("ZNCRUN");
        const std::string program =
            named != nullptr ? named : fs::read_symlink("/proc/self/exe").parent_path() / "zncrun";
        const std::string command =
            program + " --root " + kWork + "/state " + words + " 2>&1 </dev/null";
        Result result;
        std::FILE* pipe = ::popen(command.c_str(), "r");
        std::array<char, 4096> buffer;
        for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
            result.out.append(buffer.data(), n);
        const int status = ::pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result;
    }

    static bool unified() { return fs::exists("/sys/fs/cgroup/cgroup.controllers"); }
    // The directory of the group in the hierarchy that has the controller.
    [[nodiscard]] std::string group(const std::string& controller) const
    {
        return std::string("/sys/fs/cgroup/") + (unified() ? "" : controller + "/") + "zncrun/" +
               id_;
    }
    static std::string text(const std::string& path)
    {
        std::ifstream file(path);
        std::stringstream content;
        content << file.rdbuf();
        std::string all = content.str();
        return all.substr(0, all.find('\n'));
    }

    // A bundle with settings below "linux", besides the usual namespaces.
    void bundle(const std::vector<std::string>& args, const std::string& settings = "") const
    {
        make_bundle(kBundle, args,
                    R"(,"mounts":[{"destination":"/proc","type":"proc","source":"proc"},
                        {"destination":"/dev","type":"tmpfs","source":"tmpfs"},
                        {"destination":"/sys","type":"sysfs","source":"sysfs"},
                        {"destination":"/sys/fs/cgroup","type":"cgroup","source":"cgroup",
                         "options":["ro"]}],
                       "linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"cgroup"}],
                                "cgroupsPath":"/zncrun/)" +
                        id_ + "\"" + settings + "}");
    }
    Result run() const { return zncrun("run --bundle " + std::string(kBundle) + " " + id_); }
    void run_detached() const
    {
        const Result result =
            zncrun("run --detach --bundle " + std::string(kBundle) + " " + id_ + " >/dev/null");
        ASSERT_EQ(result.status, 0) << result.out;
    }

    static constexpr char kWork[] = "/tmp/oci-group";
    static constexpr char kBundle[] = "/tmp/oci-group/bundle";
    std::string id_ = "group" + std::to_string(::getpid());
};

TEST_F(OciGroup, LimitsAreWritten)
{
    bundle({"/bin/sleep", "1000"},
           R"(,"resources":{"pids":{"limit":33},"memory":{"limit":67108864},
                            "cpu":{"shares":512,"quota":50000,"period":100000}})");
    run_detached();
    EXPECT_EQ(text(group("pids") + "/pids.max"), "33");
    EXPECT_EQ(text(group("memory") + (unified() ? "/memory.max" : "/memory.limit_in_bytes")),
              "67108864");
    EXPECT_EQ(text(group("cpu") + (unified() ? "/cpu.max" : "/cpu.cfs_quota_us")),
              unified() ? "50000 100000" : "50000");
    std::ofstream(std::string(kWork) + "/limits") << R"({"pids":{"limit":44}})";
    EXPECT_EQ(zncrun("update --resources " + std::string(kWork) + "/limits " + id_).status, 0);
    EXPECT_EQ(text(group("pids") + "/pids.max"), "44");
}

TEST_F(OciGroup, ControlFilesAreWrittenByName)
{
    bundle({"/bin/sleep", "1000"}, R"(,"resources":{"unified":{"memory.high":"33554432",
                                                               "pids.max":"21"}})");
    const std::string create = "create --bundle " + std::string(kBundle) + " " + id_;
    if (!unified()) {
        const Result refused = zncrun(create);
        EXPECT_EQ(refused.status, 1);
        EXPECT_NE(refused.out.find(
                      "linux.resources.unified (invalid configuration: needs control groups v2)"),
                  std::string::npos)
            << refused.out;
        return;
    }
    const Result made = zncrun(create + " >/dev/null");
    ASSERT_EQ(made.status, 0) << made.out;
    EXPECT_EQ(text(group("memory") + "/memory.high"), "33554432");
    EXPECT_EQ(text(group("pids") + "/pids.max"), "21");
    zncrun("delete --force " + id_);
    bundle({"/bin/true"}, R"(,"resources":{"unified":{"nosuch.max":"1"}})");
    const Result refused = zncrun(create);
    EXPECT_NE(refused.out.find("linux.resources.unified"), std::string::npos) << refused.out;
}

TEST_F(OciGroup, IsWhatTheContainerSees)
{
    bundle({"/bin/sh", "-c",
            "cat /proc/self/cgroup; ls /sys/fs/cgroup /sys/fs/cgroup/pids; "
            "mkdir /sys/fs/cgroup/new || echo read-only"});
    const Result seen = run();
    EXPECT_EQ(seen.status, 0) << seen.out;
    EXPECT_EQ(seen.out.find("zncrun"), std::string::npos) << seen.out; // the group is the root
    EXPECT_NE(seen.out.find("cgroup.procs"), std::string::npos) << seen.out;
    EXPECT_NE(seen.out.find("pids.max"), std::string::npos) << seen.out;
    EXPECT_NE(seen.out.find("\nread-only"), std::string::npos) << seen.out;
}

TEST_F(OciGroup, DevicesThatNoRuleAllowsCannotBeUsed)
{
    const std::string settings =
        R"(,"devices":[{"path":"/dev/kept","type":"c","major":1,"minor":3},
                       {"path":"/dev/loop","type":"c","major":10,"minor":237}])";
    bundle({"/bin/sh", "-c", "cat </dev/loop; cat </dev/kept && echo fine"}, settings);
    const Result denied = run();
    EXPECT_NE(denied.out.find("Operation not permitted"), std::string::npos) << denied.out;
    EXPECT_NE(denied.out.find("fine"), std::string::npos) << denied.out;
    bundle({"/bin/sh", "-c", "cat </dev/loop; true"},
           settings + R"(,"resources":{"devices":[{"allow":false,"access":"rwm"},
               {"allow":true,"type":"c","major":10,"minor":237,"access":"rwm"}]})");
    EXPECT_EQ(run().out.find("Operation not permitted"), std::string::npos);
}

TEST_F(OciGroup, FurtherProgramsAreInIt)
{
    bundle({"/bin/sleep", "1000"});
    run_detached();
    const Result inside = zncrun("exec " + id_ + " /bin/cat /proc/self/cgroup");
    EXPECT_EQ(inside.status, 0);
    EXPECT_EQ(inside.out.find("zncrun"), std::string::npos) << inside.out;
    EXPECT_NE(inside.out.find(":/\n"), std::string::npos) << inside.out;
}

TEST_F(OciGroup, IsFrozenThawedAndKilled)
{
    bundle({"/bin/sh", "-c", "sleep 1000 & exec sleep 1000"});
    run_detached();
    const auto has_two = [&] {
        const std::string list = zncrun("ps --format json " + id_).out;
        return list.find(',') != std::string::npos;
    };
    EXPECT_TRUE(eventually(has_two));
    EXPECT_EQ(zncrun("pause " + id_).status, 0);
    EXPECT_NE(zncrun("state " + id_).out.find("\"paused\""), std::string::npos);
    EXPECT_EQ(zncrun("resume " + id_).status, 0);
    EXPECT_NE(zncrun("state " + id_).out.find("\"running\""), std::string::npos);
    EXPECT_NE(zncrun("events --stats " + id_).out.find("\"usage\""), std::string::npos);
    EXPECT_EQ(zncrun("kill --all " + id_ + " KILL").status, 0);
    const auto stopped = [&] {
        return zncrun("state " + id_).out.find("\"stopped\"") != std::string::npos;
    };
    EXPECT_TRUE(eventually(stopped));
    EXPECT_EQ(zncrun("delete " + id_).status, 0);
}

TEST_F(OciGroup, FrozenContainersAreDeletedByForce)
{
    bundle({"/bin/sleep", "1000"});
    run_detached();
    EXPECT_EQ(zncrun("pause " + id_).status, 0);
    EXPECT_EQ(zncrun("delete --force " + id_).status, 0);
    EXPECT_FALSE(fs::exists(group("pids")));
}

} // namespace
