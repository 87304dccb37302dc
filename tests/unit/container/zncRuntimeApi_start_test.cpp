#include "zncRuntimeApi.hpp"

#include "alloc_fault.hpp"
#include "eventually.hpp"
#include "fake_daemon.hpp"
#include "zarnel/spawn.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Replaces the platform's spawn functions: records their arguments and forks a real child that
// exits with a given code when its pipe is closed.
namespace {

struct SpawnLog {
    std::vector<std::string> setters; // in the order of the calls, such as "priority=100"
    std::string failing;              // the setter that fails with EINVAL
    std::string path;
    std::vector<std::string> arg;
    std::vector<std::string> env;
    bool envIsNull = false;
    int spawned = 0;
    int destroyed = 0;
    int spawnFails = 0; // if not 0, the spawn fails with this number
    bool pidIs0 = false;
    bool isTraced = false; // the child makes its parent its tracer, stops, and is then killed
    pid_t child = 0;
    int holdChild = -1; // a descriptor whose other end keeps the child alive until it is closed
};
SpawnLog spawnLog;

STATUS set(const std::string& name, const std::string& value)
{
    spawnLog.setters.push_back(name + "=" + value);
    if (spawnLog.failing != name)
        return OK;
    errno = EINVAL;
    return ERROR;
}

std::vector<std::string> strings(char* const* vector)
{
    std::vector<std::string> all;
    for (; vector != nullptr && *vector != nullptr; vector++)
        all.emplace_back(*vector);
    return all;
}

} // namespace

STATUS znSpawnAttrInit(znSpawnAttr* attr)
{
    *attr = {100, 0, 0, 0, -1, nullptr, 0, nullptr};
    return set("init", "");
}
STATUS znSpawnAttrDestroy(znSpawnAttr*)
{
    spawnLog.destroyed++;
    errno = EIO; // cleaning up may change errno
    return OK;
}
STATUS znSpawnAttrSetPriority(znSpawnAttr*, int v)
{
    return set("priority", std::to_string(v));
}
STATUS znSpawnAttrSetStackSize(znSpawnAttr*, int v)
{
    return set("stackSize", std::to_string(v));
}
STATUS znSpawnAttrSetOptions(znSpawnAttr*, int v)
{
    return set("options", std::to_string(v));
}
STATUS znSpawnAttrSetTaskOptions(znSpawnAttr*, int v)
{
    return set("taskOptions", std::to_string(v));
}
STATUS znSpawnAttrSetNamespace(znSpawnAttr*, nsid_t v)
{
    return set("namespace", std::to_string(v));
}
STATUS znSpawnAttrSetCwd(znSpawnAttr*, const char* v)
{
    return set("cwd", v != nullptr ? v : "(null)");
}
STATUS znSpawnAttrSetFlags(znSpawnAttr*, short v)
{
    return set("flags", std::to_string(v));
}

// Kills `pid` once its tracer can see that it has stopped.
static void kill_when_stopped(pid_t pid)
{
    const auto stopped = [pid] {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string stat;
        std::getline(file, stat);
        return stat.find(") t ") != std::string::npos;
    };
    static_cast<void>(eventually(stopped));
    kill(pid, SIGKILL);
}

STATUS znSpawn(pid_t* pid, const char* path, const znSpawnAttr*, char* const* argv,
               char* const* envp)
{
    spawnLog.path = path;
    spawnLog.arg = strings(argv);
    spawnLog.env = strings(envp);
    spawnLog.envIsNull = envp == nullptr;
    EXPECT_NE(argv, nullptr) << "the platform wants a vector";
    spawnLog.spawned++;
    if (spawnLog.spawnFails != 0) {
        errno = spawnLog.spawnFails;
        return ERROR;
    }
    if (spawnLog.pidIs0) {
        *pid = 0;
        return OK;
    }
    spawnLog.child = fork();
    if (spawnLog.child == 0 && spawnLog.isTraced) {
        const pid_t self = getpid();
        if (fork() == 0) {
            kill_when_stopped(self);
            _exit(0);
        }
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGUSR1);
        _exit(1);
    }
    if (spawnLog.child == 0) {
        char byte;
        if (spawnLog.holdChild >= 0)
            static_cast<void>(!read(spawnLog.holdChild, &byte, 1));
        _exit(7);
    }
    *pid = spawnLog.child;
    return spawnLog.child > 0 ? OK : ERROR;
}

namespace {

using fake_daemon::answering_in_turn;
using fake_daemon::FakeDaemon;
using fake_daemon::text_of;

const std::string kSuccess = R"({"errno":0,"body":[]})";
const std::string kStarted =
    R"({"errno":0,"body":[{"appPath":"/r/bin/app","arg":["app","-v"],"env":["A=1","B=2"],)"
    R"("option":1,"priority":101,"stackSize":8192,"taskOption":2,"nsId":77,"cwd":"/srv",)"
    R"("posixFlags":384}]})";
const std::vector<std::string> kSetters = {"init=",      "priority=101",  "stackSize=8192",
                                           "options=65", "taskOptions=2", "namespace=77",
                                           "cwd=/srv",   "flags=384"};

std::string started_with(const std::string& object)
{
    return R"({"errno":0,"body":[)" + object + "]}";
}

class Start : public testing::Test {
  protected:
    void SetUp() override
    {
        spawnLog = {};
        errno = 4242;
    }
    void TearDown() override
    {
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>())
            << "a queue was left behind";
        if (spawnLog.child > 0)
            waitpid(spawnLog.child, nullptr, 0);
    }
    // Returns the requests so far, each as "<command id> <text>".
    static std::vector<std::string> requests(FakeDaemon& daemon)
    {
        std::vector<std::string> all;
        for (const auto& request : daemon.requests())
            all.push_back(std::to_string(request.message.cmdId) + " " + text_of(request.message));
        return all;
    }
    static std::string handle_stored()
    {
        return R"(8 {"containerId":"web","handle":)" + std::to_string(spawnLog.child) + "}";
    }
    static constexpr const char* kGivenUp = R"(2 {"containerId":"web","signo":15,"option":2})";
};

TEST_F(Start, SpawnsAsTheReplySaysStoresTheHandleAndReturnsTheChildsIdAfterItEnds)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    const STATUS result = zncStart("web", 0);
    EXPECT_EQ(result, spawnLog.child);
    EXPECT_EQ(waitpid(spawnLog.child, nullptr, 0), -1) << "it is reaped already";
    EXPECT_EQ(spawnLog.setters, kSetters);
    EXPECT_EQ(spawnLog.path, "/r/bin/app");
    EXPECT_EQ(spawnLog.arg, (std::vector<std::string>{"app", "-v"}));
    EXPECT_EQ(spawnLog.env, (std::vector<std::string>{"A=1", "B=2"}));
    EXPECT_EQ(spawnLog.destroyed, 1);
    EXPECT_EQ(requests(daemon),
              (std::vector<std::string>{R"(1 {"containerId":"web","option":0})", handle_stored()}));
}

TEST_F(Start, Option4ReturnsOkRightAfterTheSpawn)
{
    int hold[2];
    ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.holdChild = hold[0];
    EXPECT_EQ(zncStart("web", 4), OK);
    EXPECT_EQ(waitpid(spawnLog.child, nullptr, WNOHANG), 0) << "it still runs, and is ours to reap";
    EXPECT_EQ(requests(daemon).front(), R"(1 {"containerId":"web","option":4})");
    kill(spawnLog.child, SIGKILL);
    close(hold[0]);
    close(hold[1]);
}

TEST_F(Start, AProcessThatMakesItsParentItsTracerAndStopsHasNotEnded)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.isTraced = true;
    EXPECT_EQ(zncStart("web", 0), spawnLog.child);
    EXPECT_EQ(waitpid(spawnLog.child, nullptr, WNOHANG), -1) << "it is stopped and still there";
}

TEST_F(Start, StartPidReturnsAtOnceWithTheChildsId)
{
    int hold[2];
    ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.holdChild = hold[0];
    pid_t pid = -5;
    EXPECT_EQ(zncStartPid("web", 0, &pid), OK);
    EXPECT_GT(pid, 0);
    EXPECT_EQ(pid, spawnLog.child);
    EXPECT_EQ(waitpid(spawnLog.child, nullptr, WNOHANG), 0) << "it still runs, and is ours to reap";
    EXPECT_EQ(spawnLog.setters, kSetters);
    EXPECT_EQ(requests(daemon),
              (std::vector<std::string>{R"(1 {"containerId":"web","option":4})", handle_stored()}));
    kill(spawnLog.child, SIGKILL);
    close(hold[0]);
    close(hold[1]);
}

TEST_F(Start, StartPidWithoutAPlaceForTheIdOrWithoutAnIdFailsWithEINVAL)
{
    FakeDaemon daemon(answering_in_turn({kStarted}));
    EXPECT_EQ(zncStartPid("web", 0, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    pid_t pid = -5;
    EXPECT_EQ(zncStartPid(nullptr, 0, &pid), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(pid, 0);
    EXPECT_TRUE(daemon.requests().empty());
}

TEST_F(Start, StartPidIsZeroWhenThereIsNothingToRunAndWhenItFails)
{
    pid_t pid = -5;
    {
        FakeDaemon daemon(answering_in_turn({started_with("{}")}));
        EXPECT_EQ(zncStartPid("web", 0, &pid), OK);
        EXPECT_EQ(pid, 0);
    }
    FakeDaemon daemon(answering_in_turn({kStarted}));
    spawnLog.spawnFails = ENOENT;
    pid = -5;
    EXPECT_EQ(zncStartPid("web", 0, &pid), ERROR);
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(pid, 0);
}

TEST_F(Start, StartPidNamesTheChildThatTheDaemonCouldNotBeToldOf)
{
    FakeDaemon daemon(
        answering_in_turn({kStarted, R"({"errno":19,"body":[]})", R"({"errno":22,"body":[]})"}));
    pid_t pid = -5;
    EXPECT_EQ(zncStartPid("web", 0, &pid), ERROR);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(pid, spawnLog.child);
    EXPECT_EQ(requests(daemon).back(), kGivenUp);
}

TEST_F(Start, OtherOptionBitsDoNotKeepItFromWaiting)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    EXPECT_EQ(zncStart("web", 0xfffffffbU), spawnLog.child);
}

TEST_F(Start, NullIdFailsWithEINVAL)
{
    FakeDaemon daemon(answering_in_turn({kStarted}));
    EXPECT_EQ(zncStart(nullptr, 0), ERROR);
    EXPECT_EQ(errno, EINVAL);
    const znc::CJsonPtr body(cJSON_Parse("[{}]"));
    errno = 0;
    EXPECT_EQ(zncContextStart(nullptr, body.get(), 0), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(daemon.requests().empty());
}

TEST_F(Start, DaemonsRefusalSpawnsNothing)
{
    FakeDaemon daemon(answering_in_turn({R"({"errno":16,"body":[]})"}));
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(spawnLog.spawned, 0);
    EXPECT_EQ(requests(daemon).size(), 1U);
}

TEST_F(Start, ReplyWithoutItsObjectFailsWithEBADMSG)
{
    for (const std::string& text : {kSuccess, std::string(R"({"errno":0})")}) {
        FakeDaemon daemon(answering_in_turn({text}));
        errno = 0;
        EXPECT_EQ(zncStart("web", 0), ERROR);
        EXPECT_EQ(errno, EBADMSG);
    }
    EXPECT_EQ(spawnLog.spawned, 0);
}

TEST_F(Start, EmptyStartParametersSucceedWithoutSpawning)
{
    for (const char* object :
         {"{}", R"({"arg":[],"env":[],"option":0,"priority":0,"stackSize":0,"taskOption":0,)"
                R"("nsId":0,"posixFlags":0})"}) {
        FakeDaemon daemon(answering_in_turn({started_with(object)}));
        EXPECT_EQ(zncStart("web", 0), OK);
        EXPECT_EQ(requests(daemon).size(), 1U);
    }
    EXPECT_EQ(spawnLog.spawned, 0);
    EXPECT_TRUE(spawnLog.setters.empty());
}

TEST_F(Start, FirstSetterThatFailsEndsItWithItsNumber)
{
    for (std::size_t i = 1; i < kSetters.size(); i++) {
        FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
        spawnLog = {};
        spawnLog.failing = kSetters[i].substr(0, kSetters[i].find('='));
        EXPECT_EQ(zncStart("web", 0), ERROR);
        EXPECT_EQ(errno, EINVAL) << spawnLog.failing;
        EXPECT_EQ(
            spawnLog.setters,
            std::vector<std::string>(kSetters.begin(), kSetters.begin() + static_cast<int>(i) + 1));
        EXPECT_EQ(spawnLog.destroyed, 1);
        EXPECT_EQ(requests(daemon).size(), 1U);
    }
    EXPECT_EQ(spawnLog.spawned, 0);
}

TEST_F(Start, AStartThatSpawnsNothingEndsTheExpectationOfItsNamespace)
{
    // Returns the record of namespace 77, as its owner wrote it when it passed the namespace to the
    // client.
    const std::string record = "/run/zarnel/ns/77";
    std::filesystem::create_directories("/run/zarnel/ns");
    std::ofstream(record) << "1 1 0 0 -a\n/r";
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.failing = "cwd";
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, EINVAL);
    std::ifstream file(record);
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(line, "1 1 0 0 -o");
    std::filesystem::remove_all("/run/zarnel");
}

TEST_F(Start, AttributesThatCannotBeMadeFail)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.failing = "init";
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(spawnLog.setters, std::vector<std::string>{"init="});
    EXPECT_EQ(spawnLog.destroyed, 0);
}

TEST_F(Start, LoadedBitIsForcedOnInTheProcessOptions)
{
    FakeDaemon daemon(
        answering_in_turn({started_with(R"({"appPath":"/a","option":64})"), kSuccess}));
    EXPECT_EQ(zncStart("web", 0), spawnLog.child);
    EXPECT_EQ(spawnLog.setters[3], "options=64");
}

TEST_F(Start, SpawnFlagsAre16BitsWithASign)
{
    FakeDaemon daemon(
        answering_in_turn({started_with(R"({"appPath":"/a","posixFlags":65535})"), kSuccess}));
    EXPECT_EQ(zncStart("web", 0), spawnLog.child);
    EXPECT_EQ(spawnLog.setters.back(), "flags=-1");
}

TEST_F(Start, MissingVectorsAreAnEmptyAndANullOne)
{
    FakeDaemon daemon(answering_in_turn({started_with(R"({"appPath":"/a"})"), kSuccess}));
    EXPECT_EQ(zncStart("web", 0), spawnLog.child);
    EXPECT_TRUE(spawnLog.arg.empty());
    EXPECT_TRUE(spawnLog.envIsNull);
}

TEST_F(Start, SpawnFailureHasItsOwnCodeAndStoresNothing)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.spawnFails = ENOENT;
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(spawnLog.destroyed, 1);
    EXPECT_EQ(requests(daemon).size(), 1U);
}

TEST_F(Start, MissingProgramPathIsASpawnFailure)
{
    FakeDaemon daemon(answering_in_turn({started_with(R"({"priority":100})"), kSuccess}));
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(spawnLog.spawned, 0);
}

// Vectors freed by the failed read must be neither used nor freed again.
TEST_F(Start, VectorThatCannotBeReadCountsAsMissing)
{
    FakeDaemon daemon(answering_in_turn(
        {started_with(R"({"appPath":"/a","arg":["x"],"env":["A=1",5],"priority":9})"), kSuccess}));
    EXPECT_EQ(zncStart("web", 0), spawnLog.child);
    EXPECT_TRUE(spawnLog.arg.empty());
    EXPECT_TRUE(spawnLog.envIsNull);
    EXPECT_EQ(spawnLog.setters[1], "priority=0") << "what stands behind it is not read";
}

TEST_F(Start, ProcessId0SignalsTheWholeNamespaceAndFails)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    spawnLog.pidIs0 = true;
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(requests(daemon),
              (std::vector<std::string>{R"(1 {"containerId":"web","option":0})", kGivenUp}));
}

TEST_F(Start, HandleThatCannotBeStoredSignalsTheWholeNamespaceAndKeepsTheStoresNumber)
{
    FakeDaemon daemon(
        answering_in_turn({kStarted, R"({"errno":19,"body":[]})", R"({"errno":22,"body":[]})"}));
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(requests(daemon), (std::vector<std::string>{R"(1 {"containerId":"web","option":0})",
                                                          handle_stored(), kGivenUp}));
    EXPECT_EQ(spawnLog.destroyed, 1);
}

// Makes each allocation fail in turn; the memory checkers detect leaks.
TEST_F(Start, ShortMemoryEndsWhatWasSpawnedUnlessAllWentWell)
{
    FakeDaemon daemon([](const zncMessage& request) {
        fake_daemon::reply(request, request.cmdId == ZNC_START ? kStarted : kSuccess);
    });
    bool ended = false;
    int givenUp = 0;
    for (unsigned n = 1; !ended && n < 500; n++) {
        spawnLog = {};
        alloc_fault::arm(n);
        const STATUS result = zncStart("web", 4);
        ended = alloc_fault::disarm() < n;
        EXPECT_EQ(spawnLog.destroyed, spawnLog.setters.empty() ? 0 : 1) << n;
        if (spawnLog.spawned != 0 && result == ERROR) {
            EXPECT_EQ(requests(daemon).back(), kGivenUp) << n;
            givenUp++;
        }
        if (spawnLog.child > 0) {
            EXPECT_EQ(waitpid(spawnLog.child, nullptr, 0), spawnLog.child);
        }
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>{"znc"}) << n;
    }
    EXPECT_TRUE(ended);
    EXPECT_GT(givenUp, 0) << "the handle could not be stored";
    spawnLog.child = 0;
}

TEST_F(Start, WaitThatFailsIsTheResult)
{
    FakeDaemon daemon(answering_in_turn({kStarted, kSuccess}));
    struct sigaction old = {};
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN; // children are reaped automatically, so waiting for one fails
    sigaction(SIGCHLD, &ignore, &old);
    EXPECT_EQ(zncStart("web", 0), -1);
    EXPECT_EQ(errno, ECHILD);
    sigaction(SIGCHLD, &old, nullptr);
    spawnLog.child = 0;
}

} // namespace
