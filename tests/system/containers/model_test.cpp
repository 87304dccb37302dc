// Checks random operations of concurrent clients against a model of the registry.
//
// Strict mode: a client holds a lock per id during one operation and the check of its result, so
// that operations on different ids overlap and each result is known exactly. Free mode: no locks;
// every result must be explained by some order of the other clients' operations.
//
// MODEL_OPERATIONS and MODEL_SEED set the size and the seed; a seed repeats the operations of each
// client.

#include "client_group.hpp"
#include "daemon_world.hpp"

#include <array>
#include <cerrno>
#include <functional>
#include <map>
#include <pthread.h>
#include <random>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <vector>

namespace {

constexpr int kClients = 8;
constexpr std::size_t kIds = 20;
constexpr int kTerm = 15;
constexpr int kKill = 9;
constexpr int kCont = 19;
constexpr int kNoSignal = 99;

using system_world::size_of;
using system_world::text_of;

// What the container's program does depends on its bundle.
enum Program : int { kEndsAtOnce, kSleeps, kIsMissing, kNoBundle, kPrograms };
constexpr std::array<const char*, kPrograms> kBundles = {
    "/tmp/bundles/ends", "/tmp/bundles/sleeps", "/tmp/bundles/missing", "/tmp/bundles/none"};

// A container in the model; STATE_UNKNOWN: it does not exist.
struct Container {
    pthread_mutex_t lock;
    int status;
    int program;
};

// The result of an operation: 0, or errno.
int result_of(STATUS status)
{
    return status == ERROR ? errno : 0;
}

// The programs that this client started and that have ended.
void reap()
{
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

std::string id_of(std::size_t number)
{
    return "id" + std::to_string(number);
}

const std::vector<std::string> kWrongIds = {
    "", ".", "..", "a/b", "/", "a\\b", std::string(256, 'a'), std::string(400, 'b')};

// The random numbers of one client, and its report of an unexpected result.
class Client {
  public:
    Client(unsigned seed, int number)
        : random_(seed + static_cast<unsigned>(number)), number_(number)
    {
    }

    [[nodiscard]] int failures() const { return failures_; }

  protected:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random_); }
    bool expect(const std::string& what, int result, const std::set<int>& allowed)
    {
        if (allowed.count(result) != 0)
            return true;
        failures_++;
        std::ostringstream text;
        text << "client " << number_ << ": " << what << " gave 0x" << std::hex << result
             << " instead of";
        for (const int other : allowed)
            text << " 0x" << other;
        std::fprintf(stderr, "%s\n", text.str().c_str());
        return false;
    }

  private:
    std::mt19937 random_;
    int number_;
    int failures_ = 0;
};

// ---------------------------------------------------------------- one at a time on each id

class StrictClient : public Client {
  public:
    StrictClient(unsigned seed, int number, SharedArray<Container>& containers,
                 pthread_rwlock_t& looks)
        : Client(seed, number), containers_(containers), looks_(looks)
    {
    }

    void operate()
    {
        reap();
        if (below(40) == 0)
            return wrong_id();
        number_ = static_cast<std::size_t>(below(static_cast<int>(kIds)));
        id_ = id_of(number_);
        Container& container = containers_[number_];
        ::pthread_mutex_lock(&container.lock);
        operate_on(container);
        ::pthread_mutex_unlock(&container.lock);
    }

  private:
    void operate_on(Container& container)
    {
        switch (below(10)) {
        case 0:
        case 1:
            return create(container);
        case 2:
        case 3:
            return start(container);
        case 4:
            return signal(container);
        case 5:
            return destroy(container);
        case 6:
            return inspect(container);
        case 7:
            return list(container);
        case 8:
            return state(container);
        default:
            return status(container);
        }
    }

    bool check(const Container& container, const char* what, int result, int expected)
    {
        return expect(std::string(what) + " of " + id_ + " in state " +
                          std::to_string(container.status) + " with program " +
                          std::to_string(container.program),
                      result, {expected});
    }

    void create(Container& container)
    {
        const int program = below(kPrograms);
        const int result = result_of(
            zncCreate(id_.c_str(), kBundles[static_cast<std::size_t>(program)], 0, nullptr));
        if (container.status != STATE_UNKNOWN) {
            check(container, "create", result, S_zncLib_CONTAINER_EXISTS);
        } else if (program == kNoBundle) {
            check(container, "create without a bundle", result, S_zncLib_BUNDLE_CONFIG_NOT_EXIST);
        } else if (check(container, "create", result, 0)) {
            container.status = STATE_CREATED;
            container.program = program;
        }
    }

    void start(Container& container)
    {
        const bool wait = container.program == kEndsAtOnce;
        ::pthread_rwlock_rdlock(&looks_);
        const int result = result_of(zncStart(id_.c_str(), wait ? 0 : ZNC_OPT_NO_WAIT));
        ::pthread_rwlock_unlock(&looks_);
        if (container.status != STATE_CREATED) {
            check(container, "start", result, container.status == STATE_UNKNOWN ? ENODEV : EBUSY);
            return;
        }
        const bool missing = container.program == kIsMissing;
        check(container, "start", result, missing ? S_zncLib_RTP_SPAWN_FAILED : 0);
        container.status = container.program == kSleeps ? STATE_RUNNING : STATE_STOPPED;
    }

    void signal(Container& container)
    {
        static constexpr std::array kSignals = {kTerm, kKill, kCont, kNoSignal};
        const int signo = kSignals[static_cast<std::size_t>(below(4))];
        const unsigned option = below(2) == 0 ? 0 : ZNC_OPT_WHOLE_NAMESPACE;
        const int result = result_of(zncKill(id_.c_str(), signo, option));
        const bool running = container.status == STATE_RUNNING;
        int expected = container.status == STATE_UNKNOWN ? ENODEV : 0;
        if (running && signo == kNoSignal)
            expected = EINVAL;
        check(container, "kill", result, expected);
        if (!running || (signo != kTerm && signo != kKill))
            return;
        // The signal takes effect at an unknown time.
        check(container, "what a signal ended",
              eventually([this] { return zncStatusGet(id_.c_str()) != STATE_RUNNING; }), 1);
        container.status = STATE_STOPPED;
    }

    void destroy(Container& container)
    {
        const bool force = below(2) == 0;
        const int result = result_of(zncDelete(id_.c_str(), force ? ZNC_OPT_WHOLE_NAMESPACE : 0));
        if (container.status == STATE_UNKNOWN)
            check(container, "delete", result, ENODEV);
        else if (container.status == STATE_RUNNING && !force)
            check(container, "delete", result, EBUSY);
        else if (check(container, "delete", result, 0))
            container.status = STATE_UNKNOWN;
    }

    void status(const Container& container)
    {
        errno = 0;
        const int found = zncStatusGet(id_.c_str());
        check(container, "status", found, container.status);
        if (container.status == STATE_UNKNOWN)
            check(container, "status' number", errno, ENODEV);
    }

    [[nodiscard]] std::string state_text(const Container& container) const
    {
        return R"({"ociVersion":"1.0.0","id":")" + id_ + R"(","status":)" +
               std::to_string(container.status) + R"(,"bundle":")" +
               kBundles[static_cast<std::size_t>(container.program)] + R"("})";
    }
    void state(const Container& container)
    {
        errno = 0;
        const std::string text = text_of(zncState(id_.c_str()));
        if (container.status != STATE_UNKNOWN)
            check(container, "state's text", text == state_text(container), 1);
        else if (check(container, "state's text", text == "(none)", 1))
            check(container, "state's number", errno, ENODEV);
    }

    void list(const Container& container)
    {
        ::pthread_rwlock_wrlock(&looks_);
        const std::string all = text_of(zncList());
        ::pthread_rwlock_unlock(&looks_);
        const bool there = container.status != STATE_UNKNOWN;
        const std::string part = there ? state_text(container) : "\"" + id_ + "\"";
        check(container, "its place in the list", all.find(part) != std::string::npos, there);
        check(container, "the list's order", in_order(all), 1);
    }
    static bool in_order(const std::string& list)
    {
        std::string last;
        const std::string key = R"("id":")";
        for (std::size_t at = 0; (at = list.find(key, at)) != std::string::npos;) {
            at += key.size();
            const std::string id = list.substr(at, list.find('"', at) - at);
            if (id <= last)
                return false;
            last = id;
        }
        return true;
    }

    void inspect(const Container& container)
    {
        errno = 0;
        const std::string document = text_of(zncContainerInfoGet(id_.c_str()));
        if (container.status == STATE_UNKNOWN) {
            check(container, "inspect", document == "(none)" ? errno : 0, ENODEV);
            return;
        }
        static constexpr std::array kFlags = {"", "\"Created\":\ttrue", "\"Running\":\ttrue",
                                              "\"Stopped\":\ttrue"};
        check(container, "the document's state",
              document.find(kFlags[static_cast<std::size_t>(container.status)]) !=
                  std::string::npos,
              1);
    }

    void wrong_id()
    {
        const std::string& id =
            kWrongIds[static_cast<std::size_t>(below(static_cast<int>(kWrongIds.size())))];
        const char* text = id.c_str();
        expect("create of a wrong id", result_of(zncCreate(text, kBundles[0], 0, nullptr)),
               {EINVAL});
        expect("start of a wrong id", result_of(zncStart(text, 0)), {EINVAL});
        expect("kill of a wrong id", result_of(zncKill(text, kKill, 0)), {EINVAL});
        expect("delete of a wrong id", result_of(zncDelete(text, 0)), {EINVAL});
        errno = 0;
        expect("status of a wrong id", zncStatusGet(text), {STATE_UNKNOWN});
        expect("status' number for a wrong id", errno, {ENODEV});
    }

    SharedArray<Container>& containers_;
    // zncList queries every container, and treats one that was started but has no process yet as
    // stopped: so no start may run during a list.
    pthread_rwlock_t& looks_;
    std::size_t number_ = 0;
    std::string id_;
};

// ---------------------------------------------------------------- all at once

class FreeClient : public Client {
  public:
    using Client::Client;

    void operate(int ids)
    {
        reap();
        const std::string id = id_of(static_cast<std::size_t>(below(ids)));
        switch (below(6)) {
        case 0:
            expect("create", result_of(zncCreate(id.c_str(), kBundles[kSleeps], 0, nullptr)),
                   {0, S_zncLib_CONTAINER_EXISTS});
            break;
        case 1:
            // Between its two requests another client may delete the container.
            expect("start", result_of(zncStart(id.c_str(), ZNC_OPT_NO_WAIT)),
                   {0, ENODEV, EBUSY, S_zncLib_RTP_SPAWN_FAILED});
            break;
        case 2:
            expect("kill", result_of(zncKill(id.c_str(), kKill, below(2) == 0 ? 0 : 2)),
                   {0, ENODEV, ESRCH});
            break;
        case 3:
            expect("delete", result_of(zncDelete(id.c_str(), 0)), {0, ENODEV, EBUSY});
            break;
        case 4:
            expect("forced delete", result_of(zncDelete(id.c_str(), ZNC_OPT_WHOLE_NAMESPACE)),
                   {0, ENODEV});
            break;
        default:
            expect("status", zncStatusGet(id.c_str()),
                   {STATE_CREATED, STATE_RUNNING, STATE_STOPPED, STATE_UNKNOWN});
        }
    }
};

class Model : public DaemonWorld {
  protected:
    void SetUp() override
    {
        ::setenv("ZNC_VERBOSE", "0", 1);
        DaemonWorld::SetUp();
        make_bundle(kBundles[kEndsAtOnce], {"/bin/true"});
        make_bundle(kBundles[kSleeps], {"/bin/sleep", "1000"});
        make_bundle(kBundles[kIsMissing], {"/bin/none"});
        std::printf("seed %u\n", seed_);
    }
    void TearDown() override
    {
        for (std::size_t i = 0; i < kIds; i++)
            zncDelete(id_of(i).c_str(), ZNC_OPT_WHOLE_NAMESPACE);
        EXPECT_EQ(text_of(zncList()), "[]");
        DaemonWorld::TearDown();
        std::filesystem::remove_all("/tmp/bundles");
    }

    const unsigned seed_ = static_cast<unsigned>(
        size_of("MODEL_SEED", static_cast<int>(std::random_device()() >> 2) + 1));
    const int operations_ = size_of("MODEL_OPERATIONS", 4000) / kClients;
};

TEST_F(Model, ResultsEqualTheModelWithOneOperationPerId)
{
    SharedArray<Container> containers(kIds);
    pthread_mutexattr_t shared;
    ::pthread_mutexattr_init(&shared);
    ::pthread_mutexattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    for (Container& container : containers.all()) {
        ::pthread_mutex_init(&container.lock, &shared);
        container.status = STATE_UNKNOWN;
    }
    SharedArray<pthread_rwlock_t> looks(1);
    pthread_rwlockattr_t between_processes;
    ::pthread_rwlockattr_init(&between_processes);
    ::pthread_rwlockattr_setpshared(&between_processes, PTHREAD_PROCESS_SHARED);
    ::pthread_rwlock_init(&looks[0], &between_processes);
    ClientGroup clients(kClients, [&](int number) {
        StrictClient client(seed_, number, containers, looks[0]);
        for (int i = 0; i < operations_; i++)
            client.operate();
        return client.failures() == 0 ? 0 : 1;
    });
    EXPECT_EQ(clients.wait(), std::vector<int>(kClients, 0)) << "seed " << seed_;
    for (std::size_t i = 0; i < kIds; i++)
        EXPECT_EQ(zncStatusGet(id_of(i).c_str()), containers[i].status) << i;
}

TEST_F(Model, EveryResultIsPossibleWhereAllClientsShareAllIds)
{
    ClientGroup clients(kClients, [&](int number) {
        FreeClient client(seed_, number);
        for (int i = 0; i < operations_ / 4; i++)
            client.operate(5);
        return client.failures() == 0 ? 0 : 1;
    });
    EXPECT_EQ(clients.wait(), std::vector<int>(kClients, 0)) << "seed " << seed_;
}

TEST_F(Model, EveryResultIsOneOfThePossibleWhereAllWantTheSameId)
{
    ClientGroup clients(kClients, [&](int number) {
        FreeClient client(seed_, number);
        for (int i = 0; i < operations_ / 4; i++)
            client.operate(1);
        return client.failures() == 0 ? 0 : 1;
    });
    EXPECT_EQ(clients.wait(), std::vector<int>(kClients, 0)) << "seed " << seed_;
}

// Counts how many of eight clients that make the same call at the same moment got each result.
std::map<int, int> results_of_all(const std::function<int()>& operation)
{
    SharedArray<int> results(kClients);
    ClientGroup clients(kClients, [&](int number) {
        results[static_cast<std::size_t>(number)] = operation();
        return 0;
    });
    EXPECT_EQ(clients.wait(), std::vector<int>(kClients, 0));
    std::map<int, int> counted;
    for (const int result : results.all())
        counted[result]++;
    return counted;
}

TEST_F(Model, ExactlyOneOfEightConcurrentCallsSucceeds)
{
    using Counts = std::map<int, int>;
    const int rounds = size_of("MODEL_ROUNDS", 30);
    for (int i = 0; i < rounds; i++) {
        EXPECT_EQ(results_of_all([] {
                      return result_of(zncCreate("id0", kBundles[kEndsAtOnce], 0, nullptr));
                  }),
                  (Counts{{0, 1}, {S_zncLib_CONTAINER_EXISTS, kClients - 1}}));
        EXPECT_EQ(results_of_all([] { return result_of(zncKill("id0", kKill, 0)); }),
                  (Counts{{0, kClients}})); // it is not running: nothing is done
        EXPECT_EQ(results_of_all([] { return result_of(zncStart("id0", 0)); }),
                  (Counts{{0, 1}, {EBUSY, kClients - 1}}));
        EXPECT_EQ(results_of_all([] { return result_of(zncDelete("id0", 0)); }),
                  (Counts{{0, 1}, {ENODEV, kClients - 1}}));
    }
}

} // namespace
