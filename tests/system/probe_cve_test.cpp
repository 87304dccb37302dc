// Ways out of other container systems that became known, each tried here under its number.

#include "probe_world.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "zarnel/spawn.h"

namespace fs = std::filesystem;

namespace {

class ProbeCve : public ProbeWorld {
  protected:
    // In place of what is there now.
    static void plant_link(const std::string& target, const std::string& path)
    {
        const std::string place = std::string(kRootfs) + "/" + path;
        fs::remove_all(place);
        fs::create_directories(fs::path(place).parent_path());
        fs::create_symlink(target, place);
    }
    static void plant_file(const std::string& path, const std::string& text)
    {
        const std::string place = std::string(kRootfs) + "/" + path;
        fs::remove_all(place);
        write_file(place, text);
    }
    void expect_confined(const std::function<void()>& before = {},
                         const std::vector<const char*>& checks = {})
    {
        configure_probe();
        const Outcome outcome = run(before);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.lines("ESCAPED"), 0) << outcome.text;
        for (const char* check : checks)
            EXPECT_TRUE(outcome.holds(check)) << check << '\n' << outcome.text;
    }
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, ProbeCve, testing::Values(false, true),
                         [](const auto& flavour) { return flavour.param ? "Overlay" : "Plain"; });

// ---------------------------------------------------------------- descriptors and directories

TEST_P(ProbeCve, CVE_2024_21626_DescriptorsOfTheClientDoNotComeAlong)
{
    expect_confined(carry_everything, {"descriptors-above-2"});
}

TEST_P(ProbeCve, CVE_2024_21626_NoWorkingDirectoryThroughADescriptorOrAProcess)
{
    plant_link("/proc/self/fd/7", "etc/seven");
    plant_link("/proc/1/root", "etc/first");
    std::vector<std::string> directories = {"/proc/1/cwd",
                                            "/proc/1/root",
                                            "/proc/self/cwd",
                                            "/proc/self/root",
                                            "/proc/thread-self/cwd",
                                            "/proc/self/task/2/root",
                                            "/dev/fd/3",
                                            "/etc/seven",
                                            "/etc/seven/..",
                                            "/etc/first",
                                            "/etc/first/tmp",
                                            "/proc/self/fd/3/../.."};
    for (int fd = 0; fd < 16; fd++)
        directories.push_back("/proc/self/fd/" + std::to_string(fd));
    for (const std::string& directory : directories) {
        Config config;
        config.args = {"/bin/probe", "true"};
        config.cwd = directory;
        configure(config);
        EXPECT_EQ(run(carry_everything).status, kNotStarted) << directory;
    }
}

// ---------------------------------------------------------------- programs of the host

TEST_P(ProbeCve, CVE_2019_5736_NoProgramOfTheHostCanBeOverwritten)
{
    const std::vector<std::string> programs = {std::getenv("ZNCD"),
                                               fs::read_symlink("/proc/self/exe"),
                                               "/proc/" + std::to_string(daemon()) + "/exe"};
    std::vector<std::string> before;
    for (const std::string& program : programs)
        before.push_back(read_file(program));
    plant_link("/proc/self/exe", "bin/link");
    plant_link("/proc/1/exe", "bin/first");
    plant_file("bin/script", "#!/proc/self/exe\n");
    plant_file("bin/script-of-first", "#!/proc/1/exe\n");
    for (const char* name : {"link", "first", "script", "script-of-first"}) {
        const std::string path = std::string("/bin/") + name;
        if (fs::is_regular_file(fs::symlink_status(kRootfs + path)))
            fs::permissions(kRootfs + path, fs::perms(0755));
        Config config;
        config.args = {path, "zn-keeper"};
        configure(config);
        // What is run at best is the small program that brought it in: it does nothing.
        EXPECT_NE(run(carry_everything).status, 0) << path;
    }
    for (std::size_t i = 0; i < programs.size(); i++)
        EXPECT_EQ(read_file(programs[i]) == before[i], true) << programs[i];
}

nsid_t only_namespace()
{
    for (const auto& entry : fs::directory_iterator("/run/zarnel/ns"))
        return static_cast<nsid_t>(std::stol(entry.path().filename()));
    return -1;
}

bool join_and_leave(nsid_t ns, const std::string& program)
{
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    znSpawnAttrSetNamespace(&attr, ns);
    char use[] = "true";
    char* argv[] = {const_cast<char*>("probe"), use, nullptr};
    pid_t pid = -1;
    if (znSpawn(&pid, program.c_str(), &attr, argv, nullptr) != OK)
        return false;
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && status == 0;
}

TEST_P(ProbeCve, CVE_2016_9962_CVE_2019_5736_AJoiningProgramCannotBeLookedInto)
{
    constexpr int kJoins = 1000;
    Config config;
    config.args = {"/bin/probe", "watch"};
    configure(config);
    create();
    Outcome outcome;
    std::thread watcher([&] { outcome = start(); });
    while (!fs::exists(root() + "/tmp/watching"))
        std::this_thread::yield();
    const nsid_t ns = only_namespace();
    for (int i = 0; i < kJoins; i++)
        EXPECT_TRUE(join_and_leave(ns, root() + "/bin/probe")) << i << " " << errno;
    write_file(root() + "/tmp/stop", "");
    watcher.join();
    destroy();
    fs::remove(std::string(kRootfs) + "/tmp/stop");
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_EQ(outcome.lines("ESCAPED"), 0) << outcome.text;
    EXPECT_EQ(outcome.lines("ok joining-"), 14) << outcome.text;
    const std::size_t at = outcome.text.find("saw ");
    ASSERT_NE(at, std::string::npos) << outcome.text;
    unsigned seen = 0;
    unsigned long tried = 0;
    ASSERT_EQ(std::sscanf(outcome.text.c_str() + at, "saw %u, tried %lu", &seen, &tried), 2);
    EXPECT_GT(tried, 0U);
    std::printf("of %d programs %u were seen joining, %lu attempts\n", kJoins, seen, tried);
}

// The lines of an strace log that belong to one process, in order.
std::vector<std::string> lines_of(const std::string& log, const std::string& pid)
{
    std::vector<std::string> lines;
    std::istringstream all(log);
    for (std::string line; std::getline(all, line);)
        if (line.rfind(pid + " ", 0) == 0)
            lines.push_back(line.substr(line.find_first_not_of(' ', pid.size())));
    return lines;
}

// The process in whose line this text is first.
std::string process_with(const std::string& log, const std::string& text)
{
    const std::size_t at = log.find(text);
    if (at == std::string::npos)
        return "";
    const std::size_t line = log.rfind('\n', at) + 1;
    return log.substr(line, log.find(' ', line) - line);
}

// The calls from the first to the last of them that hold these texts.
std::vector<std::string> calls_between(const std::vector<std::string>& lines,
                                       const std::string& first, const std::string& last)
{
    std::vector<std::string> calls;
    bool within = first.empty();
    for (const std::string& line : lines) {
        const bool isCall = line.rfind("<...", 0) != 0 && line.find('(') != std::string::npos;
        if (within && isCall)
            calls.push_back(line);
        within = within || line.find(first) != std::string::npos;
        if (!last.empty() && line.find(last) != std::string::npos)
            break;
    }
    return calls;
}

TEST_P(ProbeCve, CVE_2022_1227_CVE_2019_14271_NothingOfTheImageIsLoadedBeforeItsProgramRuns)
{
    if (std::system("strace -o /dev/null true 2> /dev/null") != 0)
        GTEST_SKIP() << "strace does not work here";
    for (const char* trap :
         {"etc/ld.so.preload", "etc/ld.so.cache", "etc/nsswitch.conf", "etc/passwd", "etc/group",
          "lib/libnss_files.so.2", "lib/x86_64-linux-gnu/libc.so.6", "lib64/ld-linux-x86-64.so.2",
          "usr/lib/gconv/gconv-modules", "bin/nsenter"})
        plant_file(trap, "a trap");
    Config config;
    config.args = {"/bin/probe", "true"};
    config.cwd = "/etc";
    config.variables = {"LD_PRELOAD=/lib/libnss_files.so.2", "LD_LIBRARY_PATH=/lib",
                        "GCONV_PATH=/usr/lib/gconv"};
    configure(config);
    create();
    const std::string self = fs::read_symlink("/proc/self/exe");
    const Outcome outcome = run_process([&] {
        ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // its search is a tracer, too
        ::execlp("strace", "strace", "-f", "-qq", "-s", "200", "-o", "/tmp/trace", self.c_str(),
                 "--start", "web", static_cast<char*>(nullptr));
        return kNotStarted;
    });
    destroy();
    ASSERT_EQ(outcome.status, 0) << outcome.text;
    const std::string log = read_file("/tmp/trace");
    fs::remove("/tmp/trace");
    const std::string spawner = process_with(log, "[\"zn-spawn\"");
    const std::string program = process_with(log, "execve(\"/bin/probe\"");
    ASSERT_NE(spawner, "") << log;
    ASSERT_NE(program, "") << log;
    std::vector<std::string> calls = calls_between(lines_of(log, spawner), "[\"zn-spawn\"", "");
    const auto its = calls_between(lines_of(log, program), "", "execve(\"/bin/probe\"");
    EXPECT_GT(calls.size(), 3U);
    EXPECT_GT(its.size(), 10U);
    calls.insert(calls.end(), its.begin(), its.end());
    // None of them takes a path but the two looked at below.
    const std::set<std::string> allowed = {
        "fcntl",     "prctl",     "setns",  "clone",        "write",         "exit_group",
        "setsid",    "umask",     "keyctl", "prlimit64",    "setgroups",     "setpriority",
        "setresgid", "setresuid", "capset", "seccomp",      "openat2",       "fchdir",
        "getcwd",    "close",     "execve", "rt_sigaction", "rt_sigprocmask"};
    for (const std::string& call : calls) {
        const std::string name = call.substr(0, call.find('('));
        EXPECT_EQ(allowed.count(name), 1U) << call;
        if (name == "openat2") {
            EXPECT_NE(call.find("AT_FDCWD, \"/etc\""), std::string::npos) << call;
            EXPECT_NE(call.find("RESOLVE_IN_ROOT"), std::string::npos) << call;
        }
        if (name == "execve") {
            EXPECT_NE(call.find("execve(\"/bin/probe\""), std::string::npos) << call;
        }
    }
}

// ---------------------------------------------------------------- images with links and nodes

TEST_P(ProbeCve, CVE_2026_41579_CVE_2026_47766_LinksInPlaceOfDirectoriesLeadNowhere)
{
    for (const char* name :
         {"dev", "proc", "sys", "dev/pts", "dev/shm", "dev/mqueue", "tmp", "etc"})
        for (const char* target : {"/tmp/outside", "../../../../../../tmp/outside"}) {
            const std::string place = std::string(kRootfs) + "/" + name;
            plant_link(target, name);
            Config config;
            config.args = {"/bin/probe", "true"};
            configure(config);
            EXPECT_EQ(run().status, 0) << name << " -> " << target;
            config.mounts = std::string(R"(,"mounts":[{"type":"tmpfs","destination":"/)") + name +
                            R"(/below"}])";
            configure(config);
            if (zncCreate("web", kBundle, 0, nullptr) == OK)
                destroy();
            EXPECT_EQ(host().changes(), "") << name << " -> " << target;
            fs::remove(place);
            fs::create_directories(place);
        }
}

TEST_P(ProbeCve, CVE_2025_31133_AnImagesNullDeviceMasksNothing)
{
    const std::vector<const char*> checks = {"hidden-proc/timer_list", "genuine-dev/null",
                                             "write-proc/sys/kernel/core_pattern",
                                             "write-proc/sysrq-trigger"};
    plant_link("/proc/sys/kernel/core_pattern", "dev/null");
    expect_confined({}, checks);
    plant_file("dev/null", "a fake");
    expect_confined({}, checks);
    EXPECT_EQ(read_file(std::string(kRootfs) + "/dev/null"), "a fake");
}

TEST_P(ProbeCve, CVE_2025_52565_CVE_2026_88264_CVE_2026_88265_StreamsAndConsoleAreNoPathsOfTheImage)
{
    for (const char* name : {"dev/console", "dev/stdin", "dev/stdout", "dev/fd", "dev/ptmx"})
        plant_link("/proc/sysrq-trigger", name);
    plant_link("/tmp/outside", "dev/pts");
    expect_confined({}, {"absent-dev-console", "terminals-of-the-host", "dev-holds-only"});
}

TEST_P(ProbeCve, CVE_2025_52881_CVE_2019_16884_NothingIsWrittenToAFakeProc)
{
    for (const char* file : {"self/attr/exec", "self/attr/current", "self/oom_score_adj",
                             "thread-self/attr/exec", "sys/kernel/hostname", "sysrq-trigger"}) {
        plant_file(std::string("proc/") + file, "a fake");
        write_file(std::string("/tmp/fake/") + file, "a fake");
    }
    const std::string image = tree_text(std::string(kRootfs) + "/proc");
    const std::string volume = tree_text("/tmp/fake");
    for (const char* mount : {R"({"type":"tmpfs","destination":"/proc"})",
                              R"({"type":"bind","source":"/tmp/fake","destination":"/proc"})",
                              R"({"type":"bind","source":"/tmp/fake","destination":"/proc/self"})",
                              R"({"type":"tmpfs","destination":"/proc/sys"})"}) {
        Config config;
        config.args = {"/bin/probe", "true"};
        config.mounts = std::string(R"(,"mounts":[)") + mount + "]";
        configure(config);
        if (zncCreate("web", kBundle, 0, nullptr) == OK) {
            const Outcome outcome = start(carry_everything);
            EXPECT_EQ(outcome.status, 0) << mount << outcome.text;
            destroy();
        }
        EXPECT_EQ(tree_text("/tmp/fake"), volume) << mount;
    }
    EXPECT_EQ(tree_text(std::string(kRootfs) + "/proc"), image);
    fs::remove_all("/tmp/fake");
}

// ---------------------------------------------------------------- rights

TEST_P(ProbeCve, CVE_2022_27650_CVE_2022_24769_CVE_2022_29162_NoCapabilityIsInherited)
{
    expect_confined(carry_everything, {"capabilities-inheritable", "capabilities-ambient",
                                       "capabilities-bounding", "capable-program"});
}

TEST_P(ProbeCve, CVE_2023_25173_CVE_2022_2989_GroupsOfTheClientDoNotComeAlong)
{
    expect_confined(carry_everything, {"supplementary-groups"});
}

TEST_P(ProbeCve, CVE_2022_0492_ControlGroupsCannotBeMounted)
{
    expect_confined({}, {"unshare-users", "clone-users", "control-groups-as-own-root",
                         "mount-control-groups", "make-control-group"});
}

TEST_P(ProbeCve, CVE_2021_41103_CVE_2024_25621_OtherUsersOfTheHostDoNotReachContainers)
{
    create();
    const std::string program = root() + "/bin/probe"; // set-user-id, of root
    const bool onDevice = overlay();
    const Outcome outcome = run_process([&] {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            return 1;
        for (const char* path : {"/overlay/web", "/tmp/storage/containers", "/run/zarnel/ns"})
            if ((onDevice || path[1] != 'o') && (::access(path, F_OK) == 0 || errno != EACCES))
                return 2;
        if (onDevice)
            ::execl(program.c_str(), "probe", "power", static_cast<char*>(nullptr));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    destroy();
}

// ---------------------------------------------------------------- ways to the daemon and the user

TEST_P(ProbeCve, CVE_2020_15257_NothingListensForContainers)
{
    expect_confined({}, {"queue-znc-write", "queue-znc-read", "sockets-of-the-daemon",
                         "runtime-directory", "queues-in-sight"});
    std::set<std::string> sockets;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(daemon()) + "/fd")) {
        const std::string target = fs::read_symlink(entry.path());
        if (target.rfind("socket:[", 0) == 0)
            sockets.insert(target.substr(8, target.size() - 9));
    }
    std::istringstream list(read_file("/proc/net/unix"));
    for (std::string line; std::getline(list, line);) {
        std::istringstream fields(line);
        std::string number, count, protocol, flags, type, state, inode, path;
        fields >> number >> count >> protocol >> flags >> type >> state >> inode >> path;
        if (sockets.count(inode) != 0) {
            EXPECT_EQ(flags, "00000000") << line; // not listening
            EXPECT_EQ(path, "") << line;
        }
    }
}

TEST_P(ProbeCve, CVE_2017_5226_NothingIsTypedForTheUserAtTheTerminal)
{
    const int user = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(::grantpt(user), 0);
    ASSERT_EQ(::unlockpt(user), 0);
    const int terminal = ::ioctl(user, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    const auto sit_down = [&] {
        ::setsid();
        ::ioctl(terminal, TIOCSCTTY, 0);
        ::dup2(terminal, 0);
        ::dup2(terminal, 2);
    };
    expect_confined(sit_down, {"type-on-stream-0", "type-on-stream-2", "take-terminal",
                               "open-own-terminal", "type-on-reopened-stream"});
    int typed = -1;
    EXPECT_EQ(::ioctl(terminal, FIONREAD, &typed), 0);
    EXPECT_EQ(typed, 0);
    ::close(terminal);
    ::close(user);
}

TEST_P(ProbeCve, KeysOfTheHostsRootAreOutOfReach)
{
    expect_confined({}, {"keys-list", "keys-link", "key-read", "key-search", "key-request",
                         "keys-add", "call-filter"});
}

TEST_P(ProbeCve, AContainerThatUsesUpItsQueueMemoryStopsNoClient)
{
    Config config;
    config.args = {"/bin/probe", "fill"};
    configure(config);
    create();
    Outcome outcome;
    std::thread filler([&] { outcome = start(); });
    while (!fs::exists(root() + "/tmp/full"))
        std::this_thread::yield();
    for (int i = 0; i < 20; i++) {
        const std::unique_ptr<char, decltype(&std::free)> list(zncList(), &std::free);
        ASSERT_NE(list.get(), nullptr) << std::hex << errno;
    }
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    EXPECT_EQ(zncKill("web", 9, ZNC_OPT_WHOLE_NAMESPACE), OK);
    filler.join();
    EXPECT_EQ(outcome.status, 128 + SIGKILL);
    destroy();
}

} // namespace
