// Runs the probe in containers with and without overlay devices, started by clients that have much
// to leak; and unconfined, where it must find escapes, because otherwise its success in a container
// would mean nothing.

#include "probe_world.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <set>
#include <signal.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class Probe : public ProbeWorld {};

INSTANTIATE_TEST_SUITE_P(All, Probe, kFlavours, flavour_name);

TEST_P(Probe, FindsNoWayOut)
{
    expect_confined();
}

TEST_P(Probe, FindsNoWayOutOfAnImageFullOfTraps)
{
    const std::string root = kRootfs;
    ASSERT_EQ(::mknod((root + "/etc/disk").c_str(), S_IFBLK | 0666, makedev(8, 0)), 0);
    ASSERT_EQ(::mknod((root + "/etc/zero").c_str(), S_IFCHR | 0666, makedev(1, 5)), 0);
    ASSERT_EQ(::mknod((root + "/etc/log").c_str(), S_IFCHR | 0666, makedev(1, 11)), 0);
    fs::create_symlink("/proc/sys/kernel/core_pattern", root + "/dev/null");
    fs::create_symlink("/tmp/outside/secret", root + "/dev/console");
    fs::create_directory_symlink("/tmp/outside", root + "/dev/pts");
    fs::create_directory_symlink("../../../../../tmp/outside", root + "/dev/shm");
    fs::create_symlink("/tmp/outside/secret", root + "/dev/ptmx");
    write_file(root + "/proc/self/attr/exec", "a fake");
    write_file(root + "/proc/sys/kernel/core_pattern", "a fake");
    write_file(root + "/sys/firmware/fake", "a fake");
    fs::create_directory_symlink("/", root + "/etc/root");
    expect_confined({}, {"open-image-node-etc/disk", "open-image-node-etc/zero",
                         "open-image-node-etc/log", "genuine-dev/null", "absent-dev-console"});
}

TEST_P(Probe, InheritsNothingFromAHostileClient)
{
    expect_confined(carry_everything,
                    {"descriptors-above-2", "supplementary-groups", "umask", "environment",
                     "signals-blocked", "signals-ignored", "scheduling-policy", "disk-priority",
                     "timer-slack", "huge-pages-off", "secure-bits", "capabilities-inheritable",
                     "capabilities-ambient"});
}

TEST_P(Probe, FindsNoWayOutFromAnotherWorkingDirectory)
{
    fs::create_directory_symlink("/etc", std::string(kRootfs) + "/conf");
    Config config;
    config.args = {"/bin/probe", "root"};
    config.cwd = "/conf/../conf";
    config.variables = host().variables();
    configure(config);
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_EQ(outcome.lines("ESCAPED"), 0) << outcome.text;
    EXPECT_EQ(outcome.lines("ok "), 7) << outcome.text;
}

// ---------------------------------------------------------------- the probe itself

// A terminal of the caller's session; its other end stays open.
int own_terminal()
{
    const int other = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ::grantpt(other);
    ::unlockpt(other);
    return ::ioctl(other, TIOCGPTPEER, O_RDWR);
}

pid_t sleeper()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::pause();
        ::_exit(0);
    }
    return pid;
}

// Objects that a container never has.
void furnish(const std::string& program)
{
    ::mount("proc", "/proc", "proc", 0, nullptr);
    for (const char* point : {"/mnt", "/dev/shm"}) {
        ::mount("none", point, "tmpfs", 0, nullptr);
        ::mount(nullptr, point, nullptr, MS_SHARED, nullptr);
    }
    fs::copy_file(program, "/mnt/probe");
    ::chmod("/mnt/probe", 04755);
    ::mount("/mnt/probe", "/dev/full", nullptr, MS_BIND, nullptr);
    write_file("/dev/shm/file", "x");
    sockaddr_un name = {AF_UNIX, "\0znc-probe-test"};
    ::bind(::socket(AF_UNIX, SOCK_STREAM, 0), reinterpret_cast<sockaddr*>(&name), sizeof name);
}

// Runs as PID 1 of a new PID namespace, with new mount and UTS namespaces; everything else,
// including all privileges, is the host's. The probe is its child, next to another process to
// attack.
[[noreturn]] void keep_unconfined(const std::string& program,
                                  const std::vector<std::string>& variables)
{
    ::setsid();
    furnish(program);
    sleeper();
    const pid_t other = sleeper();
    const int terminal = own_terminal();
    // sanitizers install handlers; the probe sends all signals
    for (int signo = 1; signo <= 64; signo++)
        ::signal(signo, SIG_DFL);
    carry_everything();
    fs::current_path("/");
    const pid_t probe = ::fork();
    if (probe == 0) {
        ::personality(WHOLE_SECONDS);
        fs::current_path("/tmp/sacrifice");
        ::dup2(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), 0);
        ::dup2(terminal, 2);
        ::setenv("PROBE_NODES", "/dev/zero", 1);
        ::setenv("PROBE_PIDS", std::to_string(other).c_str(), 1);
        for (const std::string& variable : variables)
            ::putenv(const_cast<char*>(variable.c_str()));
        ::execl("/mnt/probe", "/mnt/probe", "all", static_cast<char*>(nullptr));
        ::_exit(kNotStarted);
    }
    int status = 0;
    ::waitpid(probe, &status, 0);
    ::_exit(WEXITSTATUS(status)); // also ends the other processes of the namespace
}

int run_unconfined(const std::string& program, const std::vector<std::string>& variables)
{
    ::alarm(60);
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS) != 0)
        return kNotStarted;
    const pid_t first = ::fork();
    if (first == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        keep_unconfined(program, variables);
    }
    int status = 0;
    ::waitpid(first, &status, 0);
    return WEXITSTATUS(status);
}

// Checks that may hold even for root on this machine, or for which it has no object.
bool is_held_anyway(const std::string& check)
{
    static const std::set<std::string> kAlways = {
        // shown by other attempts of the same check
        "stream-0-is-open", "stream-1-is-open", "stream-2-is-open", "stream-1-leads-nowhere",
        "stream-2-leads-nowhere", "host-file-by-stream-1", "type-on-stream-0", "type-on-stream-1",
        "genuine-dev/null", "genuine-dev/zero", "genuine-dev/random", "genuine-dev/urandom",
        // no signal from inside can kill PID 1
        "keeper-outlives-signals",
        // root may lack CAP_SYS_RESOURCE, and the kernel such files
        "hard-limit-raised", "nice-limit-raised", "oom-score-lowered",
        "write-proc/sys/user/max_user_namespaces", "write-anything-of-the-network",
        "hidden-proc/acpi", "take-terminal", "hypervisor-socket",
        // the network of the tests has no other interface
        "network-interfaces"};
    return kAlways.count(check) != 0 || check.rfind("absent-dev-", 0) == 0;
}

TEST_P(Probe, DetectsEscapesOnTheUnconfinedHost)
{
    const HostObjects sacrifice("sacrifice");
    const std::vector<std::string> variables = sacrifice.variables();
    const Outcome outcome = run_process([&] { return run_unconfined(probe_program(), variables); });
    EXPECT_EQ(outcome.status, 1) << outcome.text;
    std::printf("unconfined: %d ways out, %d checks held\n", outcome.lines("ESCAPED"),
                outcome.lines("ok "));
    std::istringstream lines(outcome.text);
    for (std::string line; std::getline(lines, line);) {
        const bool held = line.rfind("ok ", 0) == 0;
        if (held && line.find("(not in this kernel)") == std::string::npos) {
            EXPECT_TRUE(is_held_anyway(line.substr(3))) << line;
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--start") == 0)
        return start_and_wait(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
