// Known escapes from other container systems, by CVE number: through what the client that starts a
// program has, and through the program that is executed.

#include "probe_world.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "zarnel/spawn.h"

namespace fs = std::filesystem;

namespace {

class ProbeCve : public ProbeWorld {};

INSTANTIATE_TEST_SUITE_P(All, ProbeCve, kFlavours, flavour_name);

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
        // At most, the small program that entered the namespace is executed, which does nothing.
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
    const char* asked = std::getenv("PROBE_JOINS");
    const int joins = asked != nullptr ? std::atoi(asked) : 1000;
    Config config;
    config.args = {"/bin/probe", "watch"};
    configure(config);
    create();
    Outcome outcome;
    std::thread watcher([&] { outcome = start(); });
    await_file(root() + "/tmp/watching");
    const nsid_t ns = only_namespace();
    for (int i = 0; i < joins; i++)
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
    std::printf("of %d programs %u were seen joining, %lu attempts\n", joins, seen, tried);
}

// Returns the lines of an strace log that belong to one process, in order.
std::vector<std::string> lines_of(const std::string& log, const std::string& pid)
{
    std::vector<std::string> lines;
    std::istringstream all(log);
    for (std::string line; std::getline(all, line);)
        if (line.rfind(pid + " ", 0) == 0)
            lines.push_back(line.substr(line.find_first_not_of(' ', pid.size())));
    return lines;
}

// Returns the process in whose line this text occurs first.
std::string process_with(const std::string& log, const std::string& text)
{
    const std::size_t at = log.find(text);
    if (at == std::string::npos)
        return "";
    const std::size_t line = log.rfind('\n', at) + 1;
    return log.substr(line, log.find(' ', line) - line);
}

// Returns the calls from the first to the last one that contain these texts.
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
          "lib/aarch64-linux-gnu/libc.so.6", "lib/ld-linux-aarch64.so.1",
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
        ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the leak check also uses ptrace
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
    // None of them has a path argument except those checked below; "openat" follows links, so it is
    // for the host's files only.
    const std::set<std::string> allowed = {"fcntl",
                                           "mmap",
                                           "ioctl",
                                           "socket",
                                           "openat",
                                           "prctl",
                                           "fstatfs",
                                           "fchown",
                                           "setns",
                                           "clone",
                                           "clone3",
                                           "write",
                                           "exit_group",
                                           "setsid",
                                           "umask",
                                           "keyctl",
                                           "prlimit64",
                                           "setgroups",
                                           "setpriority",
                                           "setresgid",
                                           "setresuid",
                                           "capset",
                                           "seccomp",
                                           "openat2",
                                           "fchdir",
                                           "getcwd",
                                           "close",
                                           "execve",
                                           "rt_sigaction",
                                           "rt_sigprocmask",
                                           "unshare",
                                           "statx",
                                           "dup3",
                                           "ioprio_set",
                                           "personality",
                                           "set_mempolicy",
                                           "sched_setscheduler",
                                           "sched_getaffinity",
                                           "sched_setaffinity"};
    bool inside = false;
    for (const std::string& call : calls) {
        const std::string name = call.substr(0, call.find('('));
        EXPECT_EQ(allowed.count(name), 1U) << call;
        inside = inside || name == "setns";
        if (name == "openat") {
            EXPECT_FALSE(inside) << call;
            EXPECT_TRUE(call.find("AT_FDCWD, \"/sys/fs/cgroup/") != std::string::npos &&
                        (call.find("/tasks\", O_WRONLY|O_CLOEXEC") != std::string::npos ||
                         call.find("/cgroup.procs\", O_WRONLY|O_CLOEXEC") != std::string::npos ||
                         call.find("O_RDONLY|O_CLOEXEC|O_PATH|O_DIRECTORY") != std::string::npos))
                << call;
        }
        if (name == "openat2") {
            EXPECT_TRUE(call.find("AT_FDCWD, \"/etc\"") != std::string::npos ||
                        (call.find("AT_FDCWD, \"/dev/null\"") != std::string::npos &&
                         call.find("RESOLVE_NO_SYMLINKS") != std::string::npos))
                << call;
            EXPECT_NE(call.find("RESOLVE_IN_ROOT"), std::string::npos) << call;
        }
        if (name == "execve") {
            EXPECT_NE(call.find("execve(\"/bin/probe\""), std::string::npos) << call;
        }
    }
}

} // namespace
