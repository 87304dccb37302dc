// Known escapes from other container systems, by CVE number: through the contents of an image,
// through privileges, and against the daemon's and the user's side.

#include "probe_world.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class ProbeCveImage : public ProbeWorld {};

INSTANTIATE_TEST_SUITE_P(All, ProbeCveImage, kFlavours, flavour_name);

// ---------------------------------------------------------------- images with links and nodes

TEST_P(ProbeCveImage, CVE_2026_41579_CVE_2026_47766_LinksInPlaceOfDirectoriesLeadNowhere)
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

TEST_P(ProbeCveImage, CVE_2025_31133_AnImagesNullDeviceMasksNothing)
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

TEST_P(ProbeCveImage,
       CVE_2025_52565_CVE_2026_88264_CVE_2026_88265_StreamsAndConsoleAreNoPathsOfTheImage)
{
    for (const char* name : {"dev/console", "dev/stdin", "dev/stdout", "dev/fd", "dev/ptmx"})
        plant_link("/proc/sysrq-trigger", name);
    plant_link("/tmp/outside", "dev/pts");
    expect_confined({}, {"absent-dev-console", "terminals-of-the-host", "dev-holds-only"});
}

TEST_P(ProbeCveImage, CVE_2025_52881_CVE_2019_16884_NothingIsWrittenToAFakeProc)
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

TEST_P(ProbeCveImage, CVE_2022_27650_CVE_2022_24769_CVE_2022_29162_NoCapabilityIsInherited)
{
    expect_confined(carry_everything, {"capabilities-inheritable", "capabilities-ambient",
                                       "capabilities-bounding", "capable-program"});
}

TEST_P(ProbeCveImage, CVE_2023_25173_CVE_2022_2989_GroupsOfTheClientDoNotComeAlong)
{
    expect_confined(carry_everything, {"supplementary-groups"});
}

TEST_P(ProbeCveImage, CVE_2022_0492_ControlGroupsCannotBeMounted)
{
    expect_confined({}, {"unshare-users", "clone-users", "control-groups-as-own-root",
                         "mount-control-groups", "make-control-group"});
}

TEST_P(ProbeCveImage, CVE_2021_41103_CVE_2024_25621_OtherUsersOfTheHostDoNotReachContainers)
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

TEST_P(ProbeCveImage, CVE_2020_15257_NothingListensForContainers)
{
    expect_confined({}, {"queue-znc-write", "queue-znc-read", "sockets-of-the-daemon",
                         "runtime-directory", "queues-in-sight"});
    create();
    std::set<std::string> sockets;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(daemon()) + "/fd")) {
        std::error_code closed; // by the daemon, since the directory was read
        const std::string target = fs::read_symlink(entry.path(), closed);
        if (target.rfind("socket:[", 0) == 0)
            sockets.insert(target.substr(8, target.size() - 9));
    }
    EXPECT_FALSE(sockets.empty()); // those of its containers
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
    destroy();
}

TEST_P(ProbeCveImage, CVE_2017_5226_NothingIsTypedForTheUserAtTheTerminal)
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
    std::vector<const char*> checks = {"type-on-stream-0", "type-on-stream-2", "take-terminal",
                                       "open-own-terminal"};
    if (GetParam() != Flavour::kUsers) // whose root cannot open the terminal of the host's root
        checks.push_back("type-on-reopened-stream");
    expect_confined(sit_down, checks);
    int typed = -1;
    EXPECT_EQ(::ioctl(terminal, FIONREAD, &typed), 0);
    EXPECT_EQ(typed, 0);
    ::close(terminal);
    ::close(user);
}

TEST_P(ProbeCveImage, KeysOfTheHostsRootAreOutOfReach)
{
    expect_confined({}, {"keys-list", "keys-link", "key-read", "key-search", "key-request",
                         "keys-add", "call-filter"});
}

TEST_P(ProbeCveImage, AContainerThatUsesUpItsQueueMemoryStopsNoClient)
{
    Config config;
    config.args = {"/bin/probe", "fill"};
    configure(config);
    create();
    Outcome outcome;
    std::thread filler([&] { outcome = start(); });
    await_file(root() + "/tmp/full");
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
