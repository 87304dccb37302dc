// Many concurrent clients of a real daemon: none is refused, lost or starved, even if there is not
// enough queue memory for a call of each.
//
// LOAD_CLIENTS and LOAD_REQUESTS set the size. Measurements are printed but do not affect the
// result.

#include "client_group.hpp"
#include "daemon_world.hpp"
#include "raw_client.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

using system_world::size_of;
using system_world::text_of;
using Clock = std::chrono::steady_clock;

// Makes the next request of a client; returns true if it was answered correctly.
bool request(int client, int number)
{
    const std::string id = "client" + std::to_string(client);
    errno = 0;
    if ((number + client) % 50 == 49) { // not all at the same time
        const bool created = zncCreate(id.c_str(), "/tmp/bundle", 0, nullptr) == OK;
        return created && zncDelete(id.c_str(), 0) == OK;
    }
    switch (number % 4) {
    case 0:
        return zncDaemonIsAlive() == TRUE;
    case 1:
        return zncStatusGet(id.c_str()) == STATE_UNKNOWN && errno == ENODEV;
    case 2:
        return zncKill(id.c_str(), 9, 0) == ERROR && errno == ENODEV;
    default:
        return text_of(zncList()).starts_with("[");
    }
}

struct Measured {
    std::vector<std::uint32_t> waits; // microseconds, ascending
    double seconds = 0;
    std::size_t lost = 0;
};

Measured run_clients(int clients, int requests)
{
    const auto count = static_cast<std::size_t>(clients) * static_cast<std::size_t>(requests);
    SharedArray<std::uint32_t> waits(count);
    SharedArray<std::uint32_t> lost(static_cast<std::size_t>(clients));
    const auto begin = Clock::now();
    ClientGroup group(clients, [&](int client) {
        for (int i = 0; i < requests; i++) {
            const auto sent = Clock::now();
            if (!request(client, i)) {
                lost[static_cast<std::size_t>(client)]++;
                std::fprintf(stderr, "client %d request %d: error 0x%x\n", client, i,
                             static_cast<unsigned>(errno));
            }
            const auto waited =
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent);
            waits[static_cast<std::size_t>(client * requests + i)] =
                static_cast<std::uint32_t>(waited.count());
        }
        return 0;
    });
    for (const int status : group.wait())
        EXPECT_EQ(status, 0);
    Measured measured;
    measured.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    measured.waits.assign(waits.all().begin(), waits.all().end());
    std::sort(measured.waits.begin(), measured.waits.end());
    for (const std::uint32_t number : lost.all())
        measured.lost += number;
    return measured;
}

// A client is served again only after every other client has been served once.
void print(const Measured& measured, int clients, long before, long after)
{
    const auto& waits = measured.waits;
    const double served = 1000 * measured.seconds / static_cast<double>(waits.size());
    const auto at = [&](std::size_t percent) {
        return waits[std::min(waits.size() - 1, waits.size() * percent / 100)] / 1000.0;
    };
    std::printf("%zu requests of %d clients in %.1f s, %zu lost; waits: median %.1f ms, 99%% %.1f "
                "ms, worst %.1f ms (a turn is %.1f ms); the daemon's memory %ld KiB before, %ld "
                "KiB after\n",
                waits.size(), clients, measured.seconds, measured.lost, at(50), at(99), at(100),
                served * clients, before, after);
}

class Load : public DaemonWorld {};

TEST_F(Load, EveryRequestOfManyClientsIsAnswered)
{
    const int clients = size_of("LOAD_CLIENTS", 32);
    const int requests = size_of("LOAD_REQUESTS", 50);
    const long before = daemon_memory();
    const Measured measured = run_clients(clients, requests);
    print(measured, clients, before, daemon_memory());
    EXPECT_EQ(measured.lost, 0U);
}

void limit_queue_memory(rlim_t bytes)
{
    struct rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_MSGQUEUE, &limit), 0);
    limit.rlim_cur = bytes;
    ASSERT_EQ(::setrlimit(RLIMIT_MSGQUEUE, &limit), 0);
}

bool small_queue_fits()
{
    constexpr const char* kName = "/load-small";
    struct mq_attr attr = {};
    attr.mq_maxmsg = 1;
    attr.mq_msgsize = 1;
    const mqd_t queue = ::mq_open(kName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attr);
    if (queue < 0)
        return false;
    ::mq_close(queue);
    ::mq_unlink(kName);
    return true;
}

// Determines the queue memory used by this user, which only the limit reveals.
rlim_t queue_memory_in_use(rlim_t most)
{
    rlim_t least = 0;
    while (most - least > 512) {
        const rlim_t middle = (least + most) / 2;
        limit_queue_memory(middle);
        (small_queue_fits() ? most : least) = middle;
    }
    return most;
}

// The limit allows four calls.
TEST_F(Load, ClientsWaitTheirTurnWhereQueueMemoryHoldsFewCalls)
{
    constexpr rlim_t kOneCall = 9000;
    struct rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_MSGQUEUE, &old), 0);
    limit_queue_memory(queue_memory_in_use(old.rlim_cur) + 4 * kOneCall);
    const Measured measured = run_clients(24, 25);
    limit_queue_memory(old.rlim_cur);
    EXPECT_EQ(measured.lost, 0U);
}

// Makes calls until it is stopped. Each call must end in a documented way: success, refused by a
// daemon, or failed because no daemon is running or none answered.
int call_until(const std::uint32_t& stop, std::uint32_t& calls, int client)
{
    const std::string id = "client" + std::to_string(client);
    while (__atomic_load_n(&stop, __ATOMIC_RELAXED) == 0) {
        errno = 0;
        const bool done = zncKill(id.c_str(), 9, 0) == OK;
        if (done || (errno != ENODEV && errno != S_zncLib_DAEMON_NOT_RUNNING && errno != 0)) {
            std::fprintf(stderr, "client %d: error 0x%x\n", client, static_cast<unsigned>(errno));
            return 1;
        }
        __atomic_fetch_add(&calls, 1, __ATOMIC_RELAXED);
    }
    return 0;
}

// Twice as many clients as the queue holds requests, so that many wait to send when it dies.
TEST_F(Load, NoClientHangsWhileTheDaemonIsKilledAndStartedAgain)
{
    constexpr std::size_t kClients = 60;
    const int restarts = size_of("LOAD_RESTARTS", 20);
    SharedArray<std::uint32_t> calls(kClients);
    SharedArray<std::uint32_t> stop(1);
    ClientGroup group(kClients, [&](int client) {
        return call_until(stop[0], calls[static_cast<std::size_t>(client)], client);
    });
    for (int i = 0; i < restarts; i++) {
        EXPECT_EQ(stop_daemon(SIGKILL), 128 + SIGKILL);
        start_daemon();
    }
    const std::vector<std::uint32_t> before(calls.all().begin(), calls.all().end());
    for (std::size_t i = 0; i < kClients; i++)
        EXPECT_TRUE(eventually([&] {
            return __atomic_load_n(&calls[i], __ATOMIC_RELAXED) > before[i];
        })) << "client "
            << i << " hangs";
    __atomic_store_n(&stop[0], 1, __ATOMIC_RELAXED);
    EXPECT_EQ(group.wait(), std::vector<int>(kClients, 0));
    settle();
}

TEST_F(Load, AfterAsManyCallsOfADeadDaemonAsItsQueueHoldsTheNextOneFails)
{
    EXPECT_EQ(stop_daemon(SIGKILL), 128 + SIGKILL);
    constexpr int kQueueHolds = 32;
    ClientGroup waiting(kQueueHolds, [](int) { return zncDaemonIsAlive() == FALSE ? 0 : 1; });
    EXPECT_EQ(waiting.wait(), std::vector<int>(kQueueHolds, 0));
    EXPECT_EQ(zncKill("web", 9, 0), ERROR);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(zncDaemonIsAlive(), FALSE);
    start_daemon();
    settle();
}

// A client that sends one request, and then neither reads nor exits.
pid_t silent_client(int cmdId, const std::string& json)
{
    int sent[2];
    if (::pipe2(sent, O_CLOEXEC) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        const raw_client::Call call(0);
        call.send(cmdId, json);
        static_cast<void>(::write(sent[1], "x", 1) == 1);
        for (;;)
            ::raise(SIGSTOP);
    }
    char byte = 0;
    ::close(sent[1]);
    EXPECT_EQ(::read(sent[0], &byte, 1), 1);
    ::close(sent[0]);
    return pid;
}

void end_silent_client(pid_t pid)
{
    ::kill(pid, SIGKILL);
    EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    const std::string name = "/znc-u-" + std::to_string(pid) +
                             raw_client::reply_name(0).substr(raw_client::reply_name(0).rfind('-'));
    znMsgQUnlink(name.c_str());
    znMsgQUnlink((name + "_info").c_str());
}

TEST_F(Load, ClientsThatStopOrDieBetweenRequestAndReplyBlockNoOthers)
{
    const int rounds = size_of("LOAD_SILENT", 100);
    const int stopped_at_once = 8;
    std::vector<pid_t> stopped;
    int client = 0;
    for (int i = 0; i < rounds; i++) {
        stopped.push_back(silent_client(ZNC_LIST, "{}"));
        EXPECT_TRUE(request(client, i));
        if (stopped.size() < stopped_at_once)
            continue;
        for (const pid_t pid : stopped)
            end_silent_client(pid);
        stopped.clear();
        EXPECT_TRUE(request(client, i));
    }
    for (const pid_t pid : stopped)
        end_silent_client(pid);
    EXPECT_TRUE(zncDaemonIsAlive());
}

TEST_F(Load, ThreadsOfOneProcessRunContainersConcurrently)
{
    constexpr int kThreads = 32;
    const int lives = size_of("LOAD_LIVES", 3);
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            const std::string id = "thread" + std::to_string(t);
            for (int i = 0; i < lives; i++)
                if (zncCreate(id.c_str(), kBundle, 0, nullptr) == OK &&
                    zncStatusGet(id.c_str()) == STATE_CREATED && zncStart(id.c_str(), 0) > 0 &&
                    zncStatusGet(id.c_str()) == STATE_STOPPED && zncDelete(id.c_str(), 0) == OK)
                    good++;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, kThreads * lives);
}

// A container whose inspection document has almost the maximum size of a reply.
class LongReply : public DaemonWorld {
  protected:
    void SetUp() override
    {
        DaemonWorld::SetUp();
        make_bundle(kBundle, {"/bin/true"},
                    R"(,"annotations":{"long":")" + std::string(kLength, 'x') + R"("})");
        ASSERT_EQ(zncCreate("long", kBundle, 0, nullptr), OK) << std::hex << errno;
    }
    void TearDown() override
    {
        EXPECT_EQ(zncDelete("long", 0), OK);
        DaemonWorld::TearDown();
    }
    static constexpr std::size_t kLength = 60000;
    static constexpr const char* kInspectLong = R"({"Id":"long"})";
};

TEST_F(LongReply, ReachesAClientThatReadsSlowlyWhileOthersWait)
{
    const raw_client::Call slow(0);
    slow.send(ZNC_INSPECT, kInspectLong);
    ClientGroup others(4, [](int client) {
        for (int i = 0; i < 25; i++)
            if (!request(client, i))
                return 1;
        return 0;
    });
    const std::string text =
        slow.reply([] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
    EXPECT_GT(text.size(), kLength);
    EXPECT_NE(text.find(std::string(kLength, 'x')), std::string::npos);
    EXPECT_TRUE(text.ends_with("}]}"));
    EXPECT_EQ(others.wait(), std::vector<int>(4, 0));
}

TEST_F(LongReply, IsGivenUpWhenItsReaderStopsAndTheOthersAreServed)
{
    const pid_t stopped = silent_client(ZNC_INSPECT, kInspectLong);
    const pid_t died = silent_client(ZNC_INSPECT, kInspectLong);
    end_silent_client(died);
    for (int i = 0; i < 8; i++)
        EXPECT_TRUE(request(0, i)) << i;
    end_silent_client(stopped);
    EXPECT_GT(text_of(zncContainerInfoGet("long")).size(), kLength);
}

} // namespace
