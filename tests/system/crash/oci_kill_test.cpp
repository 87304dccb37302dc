// Kills zncrun, and the helpers that it starts, at their system calls: create, start, exec, delete.
// Afterwards the state of the container must be true, no process may be left that belongs to no
// container, and "delete --force" must clear everything, after which the same id works again.
//
// A sample of the points is tried; with ZNC_TEST_ALL in the environment, all are. OCI_KILL_POINT is
// the number of a single point.
#include "bundle.hpp"
#include "crashat_tracer.hpp"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr seconds kHang(60);
constexpr const char* kWork = "/tmp/oci-kill";
constexpr const char* kBundle = "/tmp/oci-kill/bundle";
constexpr const char* kRoot = "/tmp/oci-kill/state";
constexpr std::size_t kSample = 45;

using Words = std::vector<std::string>;

std::string text_of(const fs::path& path)
{
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

struct Result {
    int status = -1; // as waitpid() gives it
    std::string out;
};

// What "zncrun state" says.
struct State {
    bool exists = false;
    std::string status;
    pid_t pid = 0;
};

class OciKill : public testing::Test {
  protected:
    static void SetUpTestSuite() { tracer_ = new Tracer(program()); }

    void SetUp() override
    {
#if !defined(__x86_64__) && !defined(__aarch64__)
        GTEST_SKIP() << "the registers of this machine are not known to the tracer";
#endif
        if (!fs::exists("/sys/fs/cgroup/cgroup.controllers") && !fs::exists("/sys/fs/cgroup/pids"))
            GTEST_SKIP() << "this machine has no control groups";
        fs::remove_all(kWork);
    }

    static std::string program()
    {
        const char* named = std::getenv("ZNCRUN");
        return fs::canonical(named != nullptr ? named : "zncrun");
    }

    static std::string id()
    {
        return "kill" + std::to_string(::getpid());
    }

    // A process that runs zncrun as soon as `go` is closed.
    static pid_t launch(const Words& words, int (&go)[2])
    {
        if (::pipe2(go, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        const pid_t pid = ::fork();
        if (pid != 0) {
            ::close(go[0]);
            tracer_->expect(pid);
            return pid;
        }
        char byte = 0;
        ::close(go[1]);
        while (::read(go[0], &byte, 1) > 0) {
        }
        const int out = ::open((std::string(kWork) + "/out").c_str(),
                               O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ::dup2(null, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const std::string name = program();
        const std::string root = kRoot;
        std::vector<char*> argv = {const_cast<char*>(name.c_str()), const_cast<char*>("--root"),
                                   const_cast<char*>(root.c_str())};
        for (const std::string& word : words)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }

    static Result await(pid_t pid)
    {
        Result result;
        if (!tracer_->serve_until([&] { return tracer_->status(pid).has_value(); }, kHang)) {
            ADD_FAILURE() << "zncrun hangs";
            ::kill(pid, SIGKILL);
            tracer_->serve_until([&] { return tracer_->status(pid).has_value(); }, kHang);
        }
        result.status = tracer_->status(pid).value_or(-1);
        result.out = text_of(std::string(kWork) + "/out");
        return result;
    }

    static Result zncrun(const Words& words)
    {
        int go[2];
        const pid_t pid = launch(words, go);
        ::close(go[1]);
        return await(pid);
    }

    // Runs zncrun and kills the process that makes the call `point`, counted from 1. Returns how
    // many calls there were until then; 0: none.
    static std::size_t zncrun_killed_at(const Words& words, std::size_t point)
    {
        std::size_t calls = 0;
        victim_ = "nothing";
        int go[2];
        const pid_t pid = launch(words, go);
        tracer_->adopt(pid, Side::kClient);
        tracer_->watch(Side::kClient, [&](pid_t at, long call) -> Fate {
            if (++calls != point)
                return {};
            victim_ = "call " + std::to_string(call) + " of " +
                      text_of("/proc/" + std::to_string(at) + "/comm");
            return {true, 0};
        });
        ::close(go[1]);
        await(pid);
        tracer_->watch_nothing();
        return calls;
    }

    static State state()
    {
        const Result said = zncrun({"state", id()});
        State is;
        is.exists = said.status == 0;
        const auto value = [&](const std::string& key) {
            const std::size_t at = said.out.find("\"" + key + "\": ");
            return at == said.out.npos ? "" : said.out.substr(at + key.size() + 4);
        };
        const std::string status = value("status");
        if (!status.empty())
            is.status = status.substr(1, status.find('"', 1) - 1);
        is.pid = std::atoi(value("pid").c_str());
        return is;
    }

    static pid_t parent_of(pid_t pid)
    {
        const std::string text = text_of("/proc/" + std::to_string(pid) + "/status");
        const std::size_t at = text.find("PPid:");
        return at == text.npos ? 0 : std::atoi(text.c_str() + at + 5);
    }

    // The processes below this one that have not ended. All orphans become its children.
    static std::vector<pid_t> processes()
    {
        std::vector<pid_t> found;
        for (const auto& entry : fs::directory_iterator("/proc")) {
            const pid_t pid = std::atoi(entry.path().filename().c_str());
            if (pid <= 0 || text_of(entry.path() / "status").find("State:\tZ") != std::string::npos)
                continue;
            for (pid_t above = parent_of(pid); above > 1; above = parent_of(above))
                if (above == ::getpid()) {
                    found.push_back(pid);
                    break;
                }
        }
        return found;
    }

    static bool is_helper(pid_t pid)
    {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error)
                   .string()
                   .find("zn-helper") != std::string::npos;
    }

    // What is wrong with the state and with the processes; empty if nothing is.
    static std::string contradiction()
    {
        const State is = state();
        std::vector<pid_t> all = processes();
        const bool lives = is.status == "created" || is.status == "running";
        if (is.exists && lives != (is.pid > 0))
            return is.status + " with the process " + std::to_string(is.pid);
        if (lives && std::find(all.begin(), all.end(), is.pid) == all.end())
            return is.status + ", but its process has ended";
        if (!lives && !all.empty())
            return "\"" + is.status + "\", but process " + std::to_string(all[0]) +
                   " lives: " + text_of("/proc/" + std::to_string(all[0]) + "/comm");
        for (const pid_t pid : all)
            if (is_helper(pid) && (is.status != "created" || pid != is.pid))
                return "a helper is left: " + text_of("/proc/" + std::to_string(pid) + "/comm");
        return "";
    }

    // The name of the group is the id and what stands for the root directory.
    static bool group_exists_in(const fs::path& hierarchy)
    {
        std::error_code none;
        for (const auto& group : fs::directory_iterator(hierarchy / "zncrun", none))
            if (group.path().filename().string().starts_with(std::string(id()) + "@"))
                return true;
        return false;
    }

    static bool group_exists()
    {
        for (const auto& entry : fs::directory_iterator("/sys/fs/cgroup"))
            if (group_exists_in(entry.path()))
                return true;
        return group_exists_in("/sys/fs/cgroup");
    }

    static bool soon(const std::function<bool()>& done)
    {
        return tracer_->serve_until(done, seconds(20));
    }

    // Checks what a kill has left, and clears it.
    static void check_and_clear(const std::string& mounts)
    {
        std::string wrong;
        EXPECT_TRUE(soon([&] { return (wrong = contradiction()).empty(); })) << wrong;
        const Result cleared = zncrun({"delete", "--force", id()});
        EXPECT_EQ(cleared.status, 0) << cleared.out;
        EXPECT_FALSE(fs::exists(std::string(kRoot) + "/" + id()));
        EXPECT_FALSE(group_exists());
        EXPECT_TRUE(soon([] { return processes().empty(); })) << "processes are left";
        EXPECT_EQ(text_of("/proc/self/mountinfo"), mounts);
        // A helper that reports to a caller that was killed may end by SIGPIPE.
        std::istringstream crashes(tracer_->crashes());
        for (std::string line; std::getline(crashes, line);)
            EXPECT_NE(line.find("ended by signal 13"), line.npos) << line;
        tracer_->forget_crashes();
    }

    static void good(const Words& words)
    {
        const Result result = zncrun(words);
        ASSERT_EQ(result.status, 0) << words[0] << ": " << result.out;
    }

    // Tries all points, or a sample, of a command that is run after `before`.
    static void kill_at_points(const std::vector<Words>& before, const Words& words)
    {
        const std::string mounts = text_of("/proc/self/mountinfo");
        const auto at = [&](std::size_t point) {
            for (const Words& one : before)
                good(one);
            const std::size_t calls = zncrun_killed_at(words, point);
            SCOPED_TRACE("point " + std::to_string(point) + ": " + victim_);
            check_and_clear(mounts);
            return calls;
        };
        const std::size_t points = at(0);
        ASSERT_GT(points, 20U);
        const char* single = std::getenv("OCI_KILL_POINT");
        const std::size_t tried =
            std::getenv("ZNC_TEST_ALL") != nullptr ? points : std::min(kSample, points);
        if (single != nullptr)
            at(std::strtoul(single, nullptr, 10));
        for (std::size_t i = 0; single == nullptr && i < tried && !HasFailure(); i++)
            at(1 + i * points / tried);
        // The id still works.
        good({"run", "--detach", "--bundle", kBundle, id()});
        check_and_clear(mounts);
        std::printf("%s: %zu calls, %zu points\n", words[0].c_str(), points, tried);
    }

    static void bundle()
    {
        make_bundle(kBundle, {"/bin/sleep", "1000"},
                    R"(,"mounts":[{"destination":"/proc","type":"proc","source":"proc"},
                        {"destination":"/dev","type":"tmpfs","source":"tmpfs"}],
                       "linux":{"namespaces":[{"type":"mount"},{"type":"pid"},
                        {"type":"network"}]})");
    }

    static inline Tracer* tracer_ = nullptr;
    static inline std::string victim_;
};

Words create_words(const std::string& id)
{
    return {"create", "--bundle", kBundle, "--pid-file", std::string(kWork) + "/pid", id};
}

TEST_F(OciKill, Create)
{
    bundle();
    kill_at_points({}, create_words(id()));
}

TEST_F(OciKill, CreateInAUserNamespace)
{
    bundle();
    std::string config = text_of(std::string(kBundle) + "/config.json");
    const std::string list = R"("namespaces":[)";
    config.replace(config.find(list), list.size(),
                   R"("uidMappings":[{"containerID":0,"hostID":0,"size":1000}],)"
                   R"("gidMappings":[{"containerID":0,"hostID":0,"size":1000}],)" +
                       list + R"({"type":"user"},)");
    std::ofstream(std::string(kBundle) + "/config.json") << config;
    kill_at_points({}, create_words(id()));
}

TEST_F(OciKill, Start)
{
    bundle();
    kill_at_points({create_words(id())}, {"start", id()});
}

TEST_F(OciKill, Exec)
{
    bundle();
    kill_at_points({{"run", "--detach", "--bundle", kBundle, id()}},
                   {"exec", "--detach", id(), "/bin/sleep", "500"});
}

TEST_F(OciKill, Delete)
{
    bundle();
    kill_at_points({create_words(id())}, {"delete", "--force", id()});
}

TEST_F(OciKill, DeleteOfARunningContainer)
{
    bundle();
    kill_at_points({{"run", "--detach", "--bundle", kBundle, id()}}, {"delete", "--force", id()});
}

} // namespace
