// Tests of recovery after a part of the system dies, or its data are lost or damaged: afterwards
// everything works with the same ids and nothing is left.
#include "raw_client.hpp"
#include "spare_processes.hpp"
#include "system_world.hpp"

#include <fcntl.h>
#include <fstream>
#include <linux/sched.h>
#include <mqueue.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

using system_world::begin_child;
using system_world::exit_code;
using system_world::run_child;
using system_world::text_of;

namespace fs = std::filesystem;

namespace {

constexpr const char* kRuntime = "/run/zarnel";
constexpr const char* kRecords = "/run/zarnel/ns";

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string start_time(pid_t pid)
{
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int number = 3; number <= 22; number++)
        fields >> field;
    return field;
}

class Recovery : public system_world::SystemWorld {
  protected:
    void start_daemon() { daemon_ = std::make_unique<DaemonProcess>(kStorage); }
    void kill_daemon() { EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL); }
    void restart_killed()
    {
        kill_daemon();
        start_daemon();
    }

    // A bundle whose program does not end; without overlay devices one for each container.
    std::string long_bundle(const std::string& id)
    {
        const std::string path = std::string(kBundle) + "/" + (overlay() ? "long" : id);
        if (!fs::exists(path)) // its programs may be running
            make_bundle(path, {"/bin/sleep", "1000"});
        return path;
    }
    // The container's program, a child of this process.
    pid_t start_long(const std::string& id)
    {
        const std::string bundle = long_bundle(id);
        EXPECT_EQ(zncCreate(id.c_str(), bundle.c_str(), 0, nullptr), OK) << std::hex << errno;
        EXPECT_EQ(zncStart(id.c_str(), ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
        return last_child_of(::getpid());
    }
    // Returns the newest running child.
    static pid_t last_child_of(pid_t parent)
    {
        const std::string pid = std::to_string(parent);
        std::istringstream list(read_file("/proc/" + pid + "/task/" + pid + "/children"));
        pid_t last = -1;
        for (pid_t child = 0; list >> child;)
            last = child;
        return last;
    }
    // Keepers are made in the order in which containers get them, also those that were spares.
    [[nodiscard]] pid_t keeper_of_last_container() const
    {
        const std::set<pid_t> keepers = spare_processes::named(daemon(), "zn-keeper");
        return keepers.empty() ? -1 : *keepers.rbegin();
    }
    // Returns whether the process has executed that program.
    static bool runs_program(pid_t process, const std::string& name)
    {
        return process > 0 &&
               read_file("/proc/" + std::to_string(process) + "/comm") == name + "\n";
    }
    void kill_keeper()
    {
        const pid_t keeper = keeper_of_last_container();
        ASSERT_GT(keeper, 0);
        ASSERT_EQ(::kill(keeper, SIGKILL), 0);
    }
    // A keeper without other processes in its namespace has ended if it is a zombie or was reaped
    // by the daemon.
    static bool has_ended(pid_t keeper)
    {
        const std::string text = read_file("/proc/" + std::to_string(keeper) + "/stat");
        return text.empty() || text.find(") Z ") != std::string::npos;
    }
    static fs::path only_record()
    {
        fs::path only;
        for (const auto& entry : fs::directory_iterator(kRecords))
            only = entry.path();
        return only;
    }
    // Runs another zncd to its end and returns its exit code.
    static int second_daemon()
    {
        return run_child([] {
            const int log =
                ::open("/tmp/second.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ::dup2(log, 2);
            const char* program = std::getenv("ZNCD");
            ::execl(program, program, static_cast<char*>(nullptr));
            return 127;
        });
    }
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Recovery, testing::Values(false, true),
                         system_world::flavour_name);

// ---------------------------------------------------------------- the runtime directory

TEST_P(Recovery, WithTheRuntimeDirectoryWipedTheDaemonGoesOnAndContainersCanBeDeleted)
{
    const pid_t program = start_long("runs");
    const std::string bundle = long_bundle("made");
    ASSERT_EQ(zncCreate("made", bundle.c_str(), 0, nullptr), OK);
    fs::remove_all(kRuntime);
    EXPECT_EQ(zncStatusGet("runs"), STATE_RUNNING);
    EXPECT_EQ(zncStatusGet("made"), STATE_CREATED);
    EXPECT_EQ(zncStart("made", 0), ERROR) << "nobody can find its namespace";
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(zncKill("runs", kKill, 0), OK);
    EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    EXPECT_EQ(zncDelete("runs", 0), OK);
    EXPECT_EQ(zncDelete("made", 0), OK);
    expect_usable();
}

TEST_P(Recovery, WithTheRuntimeDirectoryWipedASecondDaemonIsStillRefused)
{
    const pid_t program = start_long("runs");
    fs::remove_all(kRuntime);
    EXPECT_EQ(second_daemon(), 1);
    EXPECT_NE(read_file("/tmp/second.log").find("a daemon is running already\n"),
              std::string::npos);
    EXPECT_EQ(zncStatusGet("runs"), STATE_RUNNING);
    EXPECT_EQ(zncDelete("runs", ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_EQ(exit_code(program), 128 + SIGKILL);
}

TEST_P(Recovery, WithTheRuntimeDirectoryOfADeadDaemonWipedTheNextOneStartsClean)
{
    const pid_t program = start_long("web");
    kill_daemon();
    EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    fs::remove_all(kRuntime);
    start_daemon();
    expect_usable();
}

// ---------------------------------------------------------------- the daemon

TEST_P(Recovery, ASecondDaemonNamesTheFirstWhichIsUnharmed)
{
    const pid_t program = start_long("runs");
    EXPECT_EQ(second_daemon(), 1);
    EXPECT_NE(read_file("/tmp/second.log")
                  .find("a daemon is running already, process " + std::to_string(daemon()) + "\n"),
              std::string::npos);
    EXPECT_EQ(zncStatusGet("runs"), STATE_RUNNING);
    EXPECT_EQ(zncDelete("runs", ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_EQ(exit_code(program), 128 + SIGKILL);
}

TEST_P(Recovery, TheQueueOfADeadDaemonIsReplaced)
{
    kill_daemon();
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR) << "nobody is there";
    start_daemon();
    expect_usable();
}

TEST_P(Recovery, QueueCreatedByAnotherUserIsReplacedAndReceivesNothing)
{
    EXPECT_EQ(daemon_->stop(SIGTERM), 0);
    mqd_t squatted = -1;
    ASSERT_EQ(::seteuid(65534), 0);
    ::umask(0);
    squatted = ::mq_open("/znc", O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, 0666, nullptr);
    ::umask(022);
    ASSERT_EQ(::seteuid(0), 0);
    ASSERT_GE(squatted, 0);
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_DAEMON_NOT_RUNNING);
    start_daemon();
    expect_usable();
    mq_attr attributes = {};
    EXPECT_EQ(::mq_getattr(squatted, &attributes), 0);
    EXPECT_EQ(attributes.mq_curmsgs, 0);
    ::mq_close(squatted);
}

TEST_P(Recovery, AnotherUserCannotOpenTheQueue)
{
    EXPECT_EQ(run_child([] {
                  if (::setuid(65534) != 0)
                      return 1;
                  for (const int mode : {O_RDONLY, O_WRONLY, O_RDWR})
                      if (::mq_open("/znc", mode) >= 0 || errno != EACCES)
                          return 2;
                  return 0;
              }),
              0);
}

TEST_P(Recovery, TwentyRunningContainersEndWithTheirDaemonAndTheirIdsAreFree)
{
    constexpr int kContainers = 20;
    std::vector<pid_t> programs;
    for (int i = 0; i < kContainers; i++)
        programs.push_back(start_long("c" + std::to_string(i)));
    kill_daemon();
    for (const pid_t program : programs)
        EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    start_daemon();
    EXPECT_EQ(text_of(zncList()), "[]");
    for (int i = 0; i < kContainers; i++) {
        const std::string id = "c" + std::to_string(i);
        const pid_t program = start_long(id);
        ASSERT_EQ(zncDelete(id.c_str(), ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
        EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    }
    expect_usable();
}

TEST_P(Recovery, ClientsThatWaitWhenTheDaemonIsKilledGetAnError)
{
    constexpr int kClients = 16;
    ::kill(daemon(), SIGSTOP);
    std::vector<pid_t> clients;
    for (int i = 0; i < kClients; i++)
        clients.push_back(begin_child([] { return zncStatusGet("web") == STATE_UNKNOWN ? 0 : 1; }));
    const raw_client::Queue queue("/znc");
    mq_attr attributes = {};
    EXPECT_TRUE(eventually([&] {
        return ::mq_getattr(queue.get(), &attributes) == 0 && attributes.mq_curmsgs == kClients;
    }));
    restart_killed();
    for (const pid_t client : clients)
        EXPECT_EQ(exit_code(client), 0);
    expect_usable();
}

// ---------------------------------------------------------------- keepers

TEST_P(Recovery, ACreatedContainerWhoseKeeperWasKilledCannotBeStartedAndCanBeDeleted)
{
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    const pid_t keeper = keeper_of_last_container();
    kill_keeper();
    ASSERT_TRUE(eventually([keeper] { return has_ended(keeper); }));
    EXPECT_EQ(zncStatusGet("web"), STATE_CREATED);
    EXPECT_NE(text_of(zncList()).find("\"web\""), std::string::npos);
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(zncKill("web", kKill, ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    expect_usable();
}

TEST_P(Recovery, ARunningContainerWhoseKeeperWasKilledHasStoppedAndCanBeDeleted)
{
    const pid_t program = start_long("web");
    kill_keeper();
    EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncKill("web", kKill, 0), OK);
    EXPECT_EQ(zncKill("web", kKill, ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    expect_usable();
}

// ---------------------------------------------------------------- clients

// A process that dies with a reply queue and an info queue, like a client in the middle of a call.
int die_in_a_call(bool sent)
{
    const std::string name = "/znc-u-" + std::to_string(::getpid()) + "-0";
    const raw_client::Queue reply(name, 1, ZNC_MSG_MAX_LEN);
    const raw_client::Queue info(name + "_info", 20, 255);
    if (sent) {
        const raw_client::Queue daemon("/znc");
        const zncMessage message = raw_client::request_of(ZNC_ALIVE, "{}", name);
        daemon.send(&message, sizeof message);
    }
    ::kill(::getpid(), SIGKILL);
    return 0;
}

// More queues than the queue memory allows at once: no further call would be possible.
TEST_P(Recovery, QueuesOfKilledClientsGoWhileTheDaemonRuns)
{
    constexpr int kClients = 100;
    for (int i = 0; i < kClients; i++)
        ASSERT_EQ(run_child([i] { return die_in_a_call(i % 2 == 0); }), 128 + SIGKILL);
    expect_usable();
    EXPECT_EQ(left_over(), "");
}

TEST_P(Recovery, QueuesOfKilledClientsGoWhenTheNextDaemonStarts)
{
    kill_daemon();
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(run_child([] { return die_in_a_call(false); }), 128 + SIGKILL);
    start_daemon();
    expect_usable();
    EXPECT_EQ(left_over(), "");
}

TEST_P(Recovery, AContainerWhoseClientWasKilledGoesOnAndCanBeDeleted)
{
    const std::string bundle = long_bundle("web");
    ASSERT_EQ(zncCreate("web", bundle.c_str(), 0, nullptr), OK);
    const pid_t client = begin_child([] { return zncStart("web", 0) > 0 ? 0 : 1; });
    ASSERT_TRUE(eventually([client] { return runs_program(last_child_of(client), "sleep"); }));
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    ASSERT_EQ(::kill(client, SIGKILL), 0);
    EXPECT_EQ(exit_code(client), 128 + SIGKILL);
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    expect_usable();
}

// Gets the daemon's reply to a start that is never completed.
std::string ask_for_start(unsigned long number)
{
    const raw_client::Call call(number);
    call.send(ZNC_START, R"({"containerId":"web","option":4})");
    return call.reply([] {});
}

TEST_P(Recovery, QueriesBetweenStartAndSpawnDoNotMakeARunningContainerStopped)
{
    constexpr int kStarts = 60;
    const pid_t looker = begin_child([] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            zncStatusGet("web");
            std::free(zncList());
        }
        return 0;
    });
    int stopped = 0;
    for (int i = 0; i < kStarts; i++) {
        const pid_t program = start_long("web");
        stopped += zncStatusGet("web") != STATE_RUNNING ? 1 : 0;
        ::kill(program, SIGKILL);
        EXPECT_EQ(exit_code(program), 128 + SIGKILL);
        EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    }
    EXPECT_EQ(stopped, 0) << "of " << kStarts;
    ::kill(looker, SIGKILL);
    EXPECT_EQ(exit_code(looker), 128 + SIGKILL);
    expect_usable();
}

TEST_P(Recovery, AContainerWhoseClientDiedBetweenStartAndSpawnHasStopped)
{
    const std::string bundle = long_bundle("web");
    ASSERT_EQ(zncCreate("web", bundle.c_str(), 0, nullptr), OK);
    const pid_t client = begin_child([] {
        if (ask_for_start(0).find("\"errno\":0") == std::string::npos)
            return 1;
        ::raise(SIGKILL);
        return 2;
    });
    EXPECT_EQ(exit_code(client), 128 + SIGKILL);
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    expect_usable();
    EXPECT_TRUE(eventually([this] { return left_over().empty(); }));
}

TEST_P(Recovery, AContainerWhoseClientNeverSpawnsIsInUseAtFirstAndThenStops)
{
    const std::string bundle = long_bundle("web");
    ASSERT_EQ(zncCreate("web", bundle.c_str(), 0, nullptr), OK);
    ASSERT_NE(ask_for_start(0).find("\"errno\":0"), std::string::npos);
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    EXPECT_EQ(zncDelete("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(eventually([] { return zncStatusGet("web") == STATE_STOPPED; }));
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    expect_usable();
}

// ---------------------------------------------------------------- records

// A record begins with text and ends with settings in binary form. Where it is cut in the settings
// makes less of a difference: a sample, unless ZNC_TEST_ALL is set.
static std::size_t next_length(std::size_t length, std::size_t whole)
{
    constexpr std::size_t kText = 256;
    constexpr std::size_t kStep = 37;
    const bool every =
        length < kText || length + 16 > whole || std::getenv("ZNC_TEST_ALL") != nullptr;
    return length + (every ? 1 : kStep);
}

TEST_P(Recovery, ANamespaceRecordCutAnywhereKeepsNoDaemonFromStarting)
{
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    const fs::path place = only_record();
    const std::string whole = read_file(place);
    ASSERT_GT(whole.size(), 10U);
    for (std::size_t length = 0; length <= whole.size();
         length = next_length(length, whole.size())) {
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
        write_file(place, whole.substr(0, length));
        start_daemon();
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << length << std::hex << errno;
        EXPECT_FALSE(fs::exists(place)) << length;
        ASSERT_EQ(zncDelete("web", 0), OK) << length;
    }
    expect_usable();
}

// Like a record of an earlier boot, or of a keeper whose process id has been reused.
TEST_P(Recovery, ARecordThatNamesAnotherProcessIsNotFollowed)
{
    const pid_t innocent = begin_child([] { return ::pause(); });
    const std::string pid = std::to_string(innocent);
    const std::string time = start_time(innocent);
    EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    fs::create_directories(kRecords);
    int number = 1;
    for (const std::string& text :
         {pid + " 1\n/tmp", pid + " " + time + "0\n/tmp", pid + " -1\n/tmp", pid + "\n/tmp",
          pid + " " + time, std::string("1 1\n/"), std::string("0 0\n/"), std::string("-1 1\n/"),
          std::string("99999999999999999999 1\n/"), std::string("\n\n\n"), std::string(100000, '1'),
          std::string(4096, '\0')})
        write_file(std::string(kRecords) + "/" + std::to_string(number++), text);
    start_daemon();
    EXPECT_TRUE(fs::is_empty(kRecords));
    EXPECT_EQ(::waitpid(innocent, nullptr, WNOHANG), 0) << "an innocent process was killed";
    expect_usable();
    ::kill(innocent, SIGKILL);
    exit_code(innocent);
}

TEST_P(Recovery, ARecordThatIsNoFileKeepsNoDaemonFromStarting)
{
    EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    const std::string dir = kRecords;
    fs::create_directories(dir + "/1/below");
    fs::create_symlink("/dev/zero", dir + "/2");
    ASSERT_EQ(::mkfifo((dir + "/3").c_str(), 0600), 0);
    fs::create_symlink(dir + "/4", dir + "/4");
    start_daemon();
    expect_usable();
    fs::remove_all(dir + "/1");
    for (const char* name : {"/2", "/3", "/4"})
        fs::remove(dir + name);
}

// The program's process id is reused while the rest of the container is still running. That rest is
// in a separate session, because the kernel does not reuse the id of an existing session.
TEST_P(Recovery, ASignalDoesNotReachAProcessThatGotTheNumberOfTheContainersProgram)
{
    make_bundle(kBundle, {"/bin/sh", "-c",
                          "busybox setsid sh -c 'touch /tmp/apart; exec sleep 1000' & "
                          "until test -e /tmp/apart; do sleep 0.01; done; exit 0"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    pid_t number = last_child_of(::getpid());
    EXPECT_EQ(exit_code(number), 0);
    clone_args args = {};
    args.exit_signal = SIGCHLD;
    args.set_tid = reinterpret_cast<std::uintptr_t>(&number);
    args.set_tid_size = 1;
    const auto decoy = static_cast<pid_t>(::syscall(SYS_clone3, &args, sizeof args));
    if (decoy == 0) {
        for (;;)
            ::pause();
    }
    ASSERT_EQ(decoy, number) << std::strerror(errno);
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    EXPECT_EQ(zncKill("web", kKill, 0), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(::waitpid(decoy, nullptr, WNOHANG), 0) << "the other process was killed";
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK);
    EXPECT_EQ(::waitpid(decoy, nullptr, WNOHANG), 0) << "the other process was killed";
    ::kill(decoy, SIGKILL);
    exit_code(decoy);
}

// ---------------------------------------------------------------- devices

class Devices : public Recovery {
  protected:
    [[nodiscard]] bool overlay() const override { return true; }
};
INSTANTIATE_TEST_SUITE_P(Overlay, Devices, testing::Values(true), system_world::flavour_name);

// A truncated record could list fewer layers than the image has, which would be a different image.
TEST_P(Devices, ADeviceRecordCutAnywhereGivesTheWholeDeviceOrNone)
{
    fs::create_directories("/tmp/layers/upper");
    fs::create_directories("/tmp/layers/u"); // a possible truncated name
    fs::create_directories("/tmp/layers/lower");
    write_file("/tmp/layers/lower/file", "low");
    const std::string whole("/tmp/layers/upper\0/tmp/layers/lower\0\0", 37);
    const std::string device = "/overlay/image";
    for (std::size_t length = 0; length <= whole.size(); length++) {
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
        fs::create_directories(device);
        write_file(device + "/.zn-stack", whole.substr(0, length));
        start_daemon();
        const bool complete = length == whole.size();
        EXPECT_EQ(fs::exists(device), complete) << length;
        EXPECT_EQ(fs::exists(device + "/file"), complete) << length;
    }
    EXPECT_EQ(::umount2(device.c_str(), MNT_DETACH), 0);
    fs::remove_all(device);
    fs::remove_all("/tmp/layers");
    expect_usable();
}

} // namespace
