#include "probe_world.hpp"

#include "eventually.hpp"
#include "little_root.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

int Outcome::lines(const std::string& beginning) const
{
    std::istringstream all(text);
    int count = 0;
    for (std::string line; std::getline(all, line);)
        count += line.rfind(beginning, 0) == 0 ? 1 : 0;
    return count;
}

namespace {

int status_of(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return kNotStarted;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

void await_file(const std::string& path)
{
    if (!eventually([&] { return ::access(path.c_str(), F_OK) == 0; }))
        throw std::runtime_error(path + " does not appear");
}

DiskDirectories::DiskDirectories(std::vector<std::string> places)
{
    const char* disk = std::getenv("ZNC_TEST_DISK");
    if (disk == nullptr)
        return;
    places_ = std::move(places);
    directory_ = std::string(disk) + "/in-place";
    for (std::size_t i = 0; i < places_.size(); i++) {
        const std::string source = directory_ + "/" + std::to_string(i);
        fs::create_directories(source);
        fs::permissions(source, fs::perms::owner_all); // as zncd makes its directory
        fs::create_directories(places_[i]);
        if (::mount(source.c_str(), places_[i].c_str(), nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error(places_[i] + ": " + std::strerror(errno));
    }
}

DiskDirectories::~DiskDirectories()
{
    for (const std::string& place : places_)
        EXPECT_EQ(::umount2(place.c_str(), UMOUNT_NOFOLLOW), 0) << std::strerror(errno);
    if (!places_.empty())
        fs::remove_all(directory_);
}

void carry_everything()
{
    std::vector<gid_t> groups;
    for (gid_t group = 1; group <= 20; group++)
        groups.push_back(group);
    ::setgroups(groups.size(), groups.data());
    ::umask(077);
    fs::current_path("/tmp/outside");
    for (int i = 0; i < 50; i++) // without O_CLOEXEC
        ::open(i % 2 == 0 ? "/" : "/tmp/outside/secret", O_RDONLY);
    ::setenv("HOST_SECRET", "1", 1);
    const sched_param none = {};
    ::sched_setscheduler(0, SCHED_BATCH, &none);
    ::prctl(PR_SET_TIMERSLACK, 1000000);
    ::prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    ::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP);
    ::syscall(SYS_ioprio_set, 1, 0, 3 << 13); // idle
    sigset_t some;
    sigemptyset(&some);
    for (const int signo : {SIGTERM, SIGINT, SIGCHLD, SIGUSR1})
        sigaddset(&some, signo);
    ::sigprocmask(SIG_BLOCK, &some, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGHUP, SIG_IGN);
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    ::syscall(SYS_capget, &header, sets);
    for (auto& set : sets)
        set.inheritable = set.permitted;
    ::syscall(SYS_capset, &header, sets);
    for (unsigned long capability = 0; capability < 41; capability++)
        ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0);
}

Outcome run_process(const std::function<int()>& body)
{
    int pipes[2];
    if (::pipe2(pipes, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::dup2(input, 0);
        ::dup2(pipes[1], 1);
        ::dup2(pipes[1], 2);
        ::_exit(body());
    }
    ::close(pipes[1]);
    Outcome outcome;
    char bytes[4096];
    for (ssize_t n; (n = ::read(pipes[0], bytes, sizeof bytes)) > 0;)
        outcome.text.append(bytes, static_cast<std::size_t>(n));
    ::close(pipes[0]);
    outcome.status = status_of(pid);
    return outcome;
}

int start_and_wait(const char* id)
{
    if (zncStart(id, ZNC_OPT_NO_WAIT) != OK) {
        ::dprintf(2, "not started: 0x%x\n", static_cast<unsigned>(errno));
        return kNotStarted;
    }
    return status_of(-1);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

std::string ProbeWorld::probe_program()
{
    const char* program = std::getenv("ZNC_PROBE");
    if (program == nullptr)
        throw std::runtime_error("ZNC_PROBE does not name the probe's program");
    return program;
}

// When a client has received its reply, the daemon may still have the client's queue open, and it
// may reap a keeper only seconds later.
Ledger ProbeWorld::quiet_ledger() const
{
    EXPECT_TRUE(eventually([this] { return daemon_->is_idle(); }));
    return Ledger::take(kStorage, daemon_->pid());
}

void ProbeWorld::SetUp()
{
    // A dangling link prevents the daemon from creating /overlay, so there are no overlay devices.
    fs::remove("/overlay");
    if (!overlay())
        fs::create_symlink("/none", "/overlay");
    if (GetParam() == Flavour::kUsers)
        disk_ = std::make_unique<DiskDirectories>(std::vector<std::string>{kStorage, kBundle});
    daemon_ = std::make_unique<DaemonProcess>(kStorage,
                                              GetParam() == Flavour::kUsers ? "--userns" : nullptr);
    ASSERT_EQ(zncOvlFsAvailable() != FALSE, overlay());
    make_little_root(kRootfs);
    const std::string probe = std::string(kRootfs) + "/bin/probe";
    fs::copy_file(probe_program(), probe);
    ASSERT_EQ(::chmod(probe.c_str(), 04755), 0);
    configure({});
    // When the daemon creates its first container, it opens its helper and creates the storage
    // area, and keeps both.
    ASSERT_EQ(zncCreate("warm", kBundle, 0, nullptr), OK) << std::hex << errno;
    ASSERT_EQ(zncDelete("warm", 0), OK);
    ledger_ = quiet_ledger();
    host_ = std::make_unique<HostObjects>("outside");
}

void ProbeWorld::TearDown()
{
    if (host_) {
        EXPECT_EQ(host_->changes(), "");
    }
    host_.reset();
    if (daemon_ && !HasFatalFailure()) {
        EXPECT_EQ(quiet_ledger().compared_with(ledger_), "");
        EXPECT_EQ(daemon_->stop(SIGTERM), 0);
    }
    daemon_.reset();
    disk_.reset();
    fs::remove_all(kStorage);
    fs::remove_all(kBundle);
    fs::remove("/overlay");
    fs::create_directory("/overlay");
}

void ProbeWorld::configure(const Config& config)
{
    const auto list = [](const std::vector<std::string>& texts) {
        std::string all;
        for (const std::string& text : texts)
            all += (all.empty() ? "\"" : ",\"") + text + "\"";
        return all;
    };
    std::vector<std::string> variables = config.variables;
    variables.emplace_back("PATH=/bin");
    write_file(std::string(kBundle) + "/config.json",
               R"({"ociVersion":"1.0.2","process":{"args":[)" + list(config.args) + R"(],"cwd":")" +
                   config.cwd + R"(","env":[)" + list(variables) +
                   R"(]},"root":{"path":"rootfs"})" + config.mounts + "}");
}

void ProbeWorld::configure_probe(const std::string& use)
{
    Config config;
    config.args = {"/bin/probe", use};
    config.variables = host_->variables();
    for (std::string& variable : config.variables)
        if (variable.rfind("PROBE_QUEUES=", 0) == 0)
            variable += ",/znc,/znc-u-" + std::to_string(::getpid()) + "-0";
    config.variables.push_back("PROBE_PIDS=" + std::to_string(::getpid()) + "," +
                               std::to_string(daemon_->pid()));
    struct stat st = {};
    ::stat("/bin", &st);
    config.variables.push_back("PROBE_DISK=" + std::to_string(major(st.st_dev)) + "," +
                               std::to_string(minor(st.st_dev)));
    std::string nodes;
    for (const char* path : {"/etc/disk", "/etc/zero", "/etc/log"})
        if (fs::exists(fs::symlink_status(std::string(kRootfs) + path)))
            nodes += std::string(nodes.empty() ? "" : ",") + path;
    config.variables.push_back("PROBE_NODES=" + nodes);
    configure(config);
}

void ProbeWorld::create()
{
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
}

Outcome ProbeWorld::start(const std::function<void()>& before)
{
    return run_process([&] {
        if (before)
            before();
        return start_and_wait("web");
    });
}

void ProbeWorld::destroy()
{
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
}

Outcome ProbeWorld::run(const std::function<void()>& before)
{
    create();
    Outcome outcome;
    if (!HasFatalFailure()) {
        outcome = start(before);
        destroy();
    }
    return outcome;
}

void ProbeWorld::plant_link(const std::string& target, const std::string& path)
{
    const std::string place = std::string(kRootfs) + "/" + path;
    fs::remove_all(place);
    fs::create_directories(fs::path(place).parent_path());
    fs::create_symlink(target, place);
}

void ProbeWorld::plant_file(const std::string& path, const std::string& text)
{
    const std::string place = std::string(kRootfs) + "/" + path;
    fs::remove_all(place);
    write_file(place, text);
}

void ProbeWorld::expect_confined(const std::function<void()>& before,
                                 const std::vector<const char*>& checks)
{
    constexpr int kChecks = 200;
    configure_probe();
    const Outcome outcome = run(before);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.lines("ESCAPED"), 0) << outcome.text;
    EXPECT_GE(outcome.lines("ok "), kChecks) << outcome.text;
    std::printf("%d checks held\n", outcome.lines("ok "));
    for (const char* check : checks)
        EXPECT_TRUE(outcome.holds(check)) << check << '\n' << outcome.text;
}
