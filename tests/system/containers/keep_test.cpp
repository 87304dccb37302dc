// Tests of zncd --keep: containers, their programs and the requests of clients outlive the daemon,
// whichever way it ends; what ended in the meantime is reported as ended; what cannot be trusted is
// ended. The test is the parent of orphans, so that it sees every process that was left.
#include "bundle.hpp"
#include "daemon_process.hpp"
#include "eventually.hpp"
#include "ledger.hpp"
#include "zncontainer.h"

#include "base/owned.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <memory>
#include <mqueue.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr const char* kStorage = "/tmp/storage";
constexpr const char* kKept = "/run/zarnel/kept";
constexpr int kTerm = 15; // the library's number
constexpr int kNamespace = ZNC_OPT_WHOLE_NAMESPACE;

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string list_of_containers()
{
    const std::unique_ptr<char, decltype(&std::free)> text(zncList(), std::free);
    return text ? text.get() : "(none)";
}

int exit_code(pid_t pid)
{
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A program that exits with the number that it reads from its standard input.
struct Program {
    pid_t pid = -1;
    znc::UniqueFd input;

    void end(int code) const
    {
        const std::string line = std::to_string(code) + "\n";
        EXPECT_EQ(::write(input.get(), line.data(), line.size()),
                  static_cast<ssize_t>(line.size()));
    }
};

class Keep : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        if (!GetParam()) { // a dangling link prevents the daemon from creating it
            fs::remove("/overlay");
            fs::create_symlink("/none", "/overlay");
        }
        fs::create_directories("/tmp/shared");
        // The first daemon creates directories that stay.
        start();
        ASSERT_EQ(stop(SIGINT), 0);
        before_ = Ledger::take(kStorage, ::getpid());
    }

    void TearDown() override
    {
        if (daemon_) {
            EXPECT_EQ(stop(SIGINT), 0);
        }
        EXPECT_TRUE(eventually([] {
            while (::waitpid(-1, nullptr, WNOHANG | __WALL) > 0) {
            }
            return errno == ECHILD;
        })) << "processes are left";
        EXPECT_EQ(Ledger::take(kStorage, ::getpid()).compared_with(before_), "");
        EXPECT_FALSE(fs::exists(kKept));
        for (const char* path : {kStorage, "/tmp/bundles", "/tmp/shared"})
            fs::remove_all(path);
        if (!GetParam()) {
            fs::remove("/overlay");
            fs::create_directory("/overlay");
        }
    }

    void start(const char* option = "--keep")
    {
        daemon_ = std::make_unique<DaemonProcess>(kStorage, option);
    }
    int stop(int hostSignal)
    {
        const int status = daemon_->stop(hostSignal);
        daemon_.reset();
        return status;
    }
    void restart(int hostSignal, const char* option = "--keep")
    {
        EXPECT_EQ(stop(hostSignal), hostSignal == SIGKILL ? 128 + SIGKILL : 0);
        start(option);
    }

    static std::string bundle_of(const std::string& id, const std::string& more = "")
    {
        const std::string path = "/tmp/bundles/" + id;
        make_bundle(path, {"/bin/sh", "-c", "read code; exit $code"},
                    R"(,"mounts":[{"destination":"/scratch","type":"tmpfs","source":"tmpfs"},)"
                    R"({"destination":"/shared","type":"bind","source":"/tmp/shared"}])" +
                        more);
        return path;
    }

    static Program start_program(const std::string& id)
    {
        Program program;
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const znc::UniqueFd input(ends[0]);
        program.input.reset(ends[1]);
        const znc::UniqueFd own(::fcntl(0, F_DUPFD_CLOEXEC, 10));
        ::dup2(input.get(), 0);
        EXPECT_EQ(zncStart(id.c_str(), ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
        ::dup2(own.get(), 0);
        program.pid = newest_program();
        return program;
    }

    static Program run(const std::string& id, const std::string& more = "")
    {
        EXPECT_EQ(zncCreate(id.c_str(), bundle_of(id, more).c_str(), 0, nullptr), OK)
            << std::hex << errno;
        return start_program(id);
    }

    // The newest child of this process that is neither a daemon nor a helper.
    static pid_t newest_program()
    {
        const std::string own = std::to_string(::getpid());
        std::istringstream list(read_file("/proc/" + own + "/task/" + own + "/children"));
        pid_t newest = -1;
        for (pid_t child = 0; list >> child;) {
            const std::string name = read_file("/proc/" + std::to_string(child) + "/comm");
            if (!name.starts_with("zn-") && !name.starts_with("zncd"))
                newest = child;
        }
        return newest;
    }

    // The records of kept namespaces.
    static std::vector<fs::path> records()
    {
        std::vector<fs::path> all;
        for (const auto& entry : fs::directory_iterator(kKept))
            if (entry.path().filename() != "store")
                all.push_back(entry.path());
        return all;
    }
    // The process that a record names first: the keeper, or the one that holds the sockets.
    // 0 if there is no record.
    static pid_t process_of(const fs::path& record)
    {
        std::istringstream text(read_file(record));
        pid_t pid = 0;
        text.ignore(std::numeric_limits<std::streamsize>::max(), '\n') >> pid;
        return pid;
    }
    // The number of requests in the daemon's queue.
    static long waiting_requests()
    {
        const znc::UniqueFd queue(::mq_open("/znc", O_RDONLY | O_CLOEXEC));
        mq_attr attr = {};
        return ::mq_getattr(queue.get(), &attr) == 0 ? attr.mq_curmsgs : -1;
    }
    static pid_t store() { return process_of(fs::path(kKept) / "store"); }

    static void expect_deletable(const std::string& id)
    {
        EXPECT_EQ(zncDelete(id.c_str(), 0), OK) << id << std::hex << errno;
        EXPECT_EQ(zncStatusGet(id.c_str()), STATE_UNKNOWN) << id;
    }

    // The program has been killed, and the daemon does not know its container.
    static void expect_refused(const std::string& id, const Program& program)
    {
        EXPECT_EQ(exit_code(program.pid), 128 + SIGKILL);
        EXPECT_EQ(zncStatusGet(id.c_str()), STATE_UNKNOWN);
        EXPECT_EQ(list_of_containers(), "[]");
        const Program next = run(id); // the id can be used again
        next.end(3);
        EXPECT_EQ(exit_code(next.pid), 3);
        expect_deletable(id);
    }

    std::unique_ptr<DaemonProcess> daemon_;

  private:
    Ledger before_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Keep, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& flavour) {
                             return flavour.param ? "Overlay" : "Plain";
                         });

} // namespace

TEST_P(Keep, FiftyContainersNoticeNeitherTheDeathNorTheStopOfTheirDaemon)
{
    constexpr int kContainers = 50;
    start();
    std::vector<std::string> ids;
    std::vector<Program> programs;
    for (int i = 0; i < kContainers; i++) {
        ids.push_back("c" + std::to_string(i));
        programs.push_back(run(ids.back()));
    }
    for (const int signal : {SIGKILL, SIGTERM, SIGKILL}) {
        restart(signal);
        for (const std::string& id : ids)
            EXPECT_EQ(zncStatusGet(id.c_str()), STATE_RUNNING) << id;
    }
    for (int i = 0; i < kContainers; i++) {
        programs[static_cast<std::size_t>(i)].end(i + 1);
        EXPECT_EQ(exit_code(programs[static_cast<std::size_t>(i)].pid), i + 1);
        EXPECT_EQ(zncStatusGet(ids[static_cast<std::size_t>(i)].c_str()), STATE_STOPPED);
        expect_deletable(ids[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(list_of_containers(), "[]");
    EXPECT_TRUE(records().empty());
}

TEST_P(Keep, ContainersThatWereCreatedOrStoppedAreStillThat)
{
    start();
    ASSERT_EQ(zncCreate("made", bundle_of("made").c_str(), 0, nullptr), OK);
    const Program ended = run("ended");
    ended.end(0);
    EXPECT_EQ(exit_code(ended.pid), 0);
    const std::string before = list_of_containers();
    restart(SIGKILL);
    EXPECT_EQ(list_of_containers(), before);
    EXPECT_EQ(zncStart("ended", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    const Program program = start_program("made");
    program.end(9);
    EXPECT_EQ(exit_code(program.pid), 9);
    expect_deletable("made");
    expect_deletable("ended");
}

TEST_P(Keep, SignalsReachTheProgramsOfContainersThatWereTakenOver)
{
    start();
    const Program one = run("one");
    const Program all = run("all");
    restart(SIGTERM);
    EXPECT_EQ(zncKill("one", kTerm, 0), OK) << std::hex << errno;
    EXPECT_EQ(exit_code(one.pid), 128 + SIGTERM);
    EXPECT_EQ(zncKill("all", kTerm, kNamespace), OK);
    EXPECT_EQ(exit_code(all.pid), 128 + SIGTERM);
    expect_deletable("one");
    expect_deletable("all");
}

TEST_P(Keep, RunningContainersThatWereTakenOverCanBeDeleted)
{
    start();
    const Program program = run("web");
    restart(SIGKILL);
    EXPECT_EQ(zncDelete("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(zncDelete("web", kNamespace), OK);
    EXPECT_EQ(exit_code(program.pid), 128 + SIGKILL);
}

TEST_P(Keep, AnIdThatIsTakenStaysTaken)
{
    start();
    const Program program = run("web");
    restart(SIGKILL);
    EXPECT_EQ(zncCreate("web", bundle_of("other").c_str(), 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
    program.end(4);
    EXPECT_EQ(exit_code(program.pid), 4);
    expect_deletable("web");
}

TEST_P(Keep, AProgramThatEndsWhileNoDaemonRunsIsReportedAsEnded)
{
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGTERM), 0);
    program.end(42);
    EXPECT_EQ(exit_code(program.pid), 42);
    start();
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncKill("web", kTerm, 0), OK);
    expect_deletable("web");
}

TEST_P(Keep, AContainerWhoseKeeperDiesWhileNoDaemonRunsIsReportedAsEnded)
{
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
    ASSERT_EQ(records().size(), 1U);
    const pid_t keeper = process_of(records()[0]);
    ASSERT_GT(keeper, 0);
    ASSERT_EQ(::kill(keeper, SIGKILL), 0);
    EXPECT_EQ(exit_code(program.pid), 128 + SIGKILL);
    start();
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    restart(SIGTERM); // and it stays so
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    expect_deletable("web");
}

TEST_P(Keep, WithoutTheProcessThatHoldsTheirSocketsContainersEndAndAreReportedAsEnded)
{
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
    const pid_t holder = store();
    ASSERT_GT(holder, 0);
    ASSERT_EQ(::kill(holder, SIGKILL), 0);
    EXPECT_EQ(exit_code(program.pid), 128 + SIGKILL);
    start();
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    expect_deletable("web");
}

TEST_P(Keep, TheDaemonReplacesTheProcessThatHoldsTheSockets)
{
    start();
    const Program program = run("web");
    const pid_t first = store();
    ASSERT_GT(first, 0);
    ASSERT_EQ(::kill(first, SIGKILL), 0);
    EXPECT_TRUE(eventually([first] {
        const pid_t now = zncDaemonIsAlive() != FALSE ? store() : 0;
        return now > 0 && now != first;
    }));
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING); // the daemon has stored everything again
    restart(SIGKILL);
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    program.end(5);
    EXPECT_EQ(exit_code(program.pid), 5);
    expect_deletable("web");
}

TEST_P(Keep, ADaemonWithoutTheOptionEndsThemAll)
{
    start();
    const Program runs = run("runs");
    ASSERT_EQ(zncCreate("made", bundle_of("made").c_str(), 0, nullptr), OK);
    restart(SIGTERM, nullptr);
    EXPECT_EQ(exit_code(runs.pid), 128 + SIGKILL);
    EXPECT_EQ(list_of_containers(), "[]");
    EXPECT_FALSE(fs::exists(kKept));
    EXPECT_EQ(stop(SIGTERM), 0);
}

TEST_P(Keep, AnInterruptEndsThemAll)
{
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGINT), 0);
    EXPECT_EQ(exit_code(program.pid), 128 + SIGKILL);
    EXPECT_FALSE(fs::exists(kKept));
}

namespace {

// Changes of records.
std::string halved(std::string text)
{
    return text.substr(0, text.size() / 2);
}
std::string flipped(std::string text)
{
    text[text.size() - 3] ^= 1;
    return text;
}
std::string emptied(std::string /*text*/)
{
    return "";
}
std::string of_another_version(std::string text)
{
    const std::size_t end = text.find(' ', std::strlen("zarnel-kept "));
    return "zarnel-kept 77777" + text.substr(end);
}

} // namespace

TEST_P(Keep, ADamagedOrForeignRecordIsRefusedAndItsContainerEnded)
{
    start();
    for (std::string (*const change)(std::string) :
         {halved, flipped, emptied, of_another_version}) {
        const Program program = run("web");
        EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
        ASSERT_EQ(records().size(), 1U);
        const fs::path record = records()[0];
        const std::string text = change(read_file(record));
        std::ofstream(record, std::ios::binary) << text;
        start();
        expect_refused("web", program);
    }
}

TEST_P(Keep, WithoutTheRecordOfItsNamespaceAContainerIsEnded)
{
    start();
    for (const bool damaged : {false, true}) {
        const Program program = run("web");
        EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
        for (const auto& entry : fs::directory_iterator("/run/zarnel/ns"))
            damaged ? static_cast<void>(std::ofstream(entry.path()) << "x")
                    : static_cast<void>(fs::remove(entry.path()));
        start();
        expect_refused("web", program);
    }
}

TEST_P(Keep, ARecordOfAnotherNamespaceIsRefused)
{
    start();
    const Program one = run("one");
    const fs::path record = records().at(0);
    const std::string text = read_file(record);
    EXPECT_EQ(stop(SIGINT), 0);
    EXPECT_EQ(exit_code(one.pid), 128 + SIGKILL);
    start();
    const Program two = run("two");
    EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
    // A record from earlier, under the number of a namespace that lives.
    const fs::path live = records().at(0);
    ASSERT_NE(read_file(live), text);
    std::ofstream(live, std::ios::binary) << text;
    start();
    expect_refused("two", two);
}

TEST_P(Keep, RequestsThatComeWhileNoDaemonRunsAreServedByTheNext)
{
    constexpr int kClients = 20;
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGTERM), 0);
    std::vector<pid_t> clients;
    for (int i = 0; i < kClients; i++) {
        std::fflush(nullptr);
        clients.push_back(::fork());
        if (clients.back() == 0)
            ::_exit(zncStatusGet("web") == STATE_RUNNING ? 0 : 1);
    }
    EXPECT_TRUE(eventually([] { return waiting_requests() == kClients; }));
    start();
    for (const pid_t client : clients)
        EXPECT_EQ(exit_code(client), 0);
    program.end(0);
    EXPECT_EQ(exit_code(program.pid), 0);
    expect_deletable("web");
}

TEST_P(Keep, ARequestWhoseClientHasGivenUpIsNotServedLater)
{
    start();
    const Program program = run("web");
    EXPECT_EQ(stop(SIGTERM), 0);
    EXPECT_EQ(zncDelete("web", kNamespace), ERROR); // times out
    start();
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    program.end(0);
    EXPECT_EQ(exit_code(program.pid), 0);
    expect_deletable("web");
}

TEST_P(Keep, ContainersWithUsersOfTheirOwnAreTakenOver)
{
    start();
    const Program program =
        run("web", R"(,"linux":{"namespaces":[{"type":"user"},{"type":"mount"},{"type":"pid"},)"
                   R"({"type":"network"},{"type":"ipc"},{"type":"uts"}],)"
                   R"("uidMappings":[{"containerID":0,"hostID":700000,"size":65536}],)"
                   R"("gidMappings":[{"containerID":0,"hostID":700000,"size":65536}]})");
    for (const int signal : {SIGKILL, SIGTERM}) {
        restart(signal);
        EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    }
    program.end(8);
    EXPECT_EQ(exit_code(program.pid), 8);
    expect_deletable("web");
}
