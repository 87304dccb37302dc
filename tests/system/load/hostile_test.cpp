// Sends messages that no client of the library sends to a running daemon: it answers or drops each
// message, continues to serve, and writes only to queues of clients.
//
// HOSTILE_MESSAGES and HOSTILE_SEED set the number of messages and the seed.

#include "client_group.hpp"
#include "daemon_world.hpp"
#include "raw_client.hpp"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <random>
#include <sys/wait.h>
#include <vector>

namespace {

using raw_client::Queue;
using raw_client::request_of;
using system_world::size_of;

const std::vector<std::string> kForeignQueues = {
    "/other",       "/znc2",        "/znc-u",      "/znc-u-",         "/znc-u-1",
    "/znc-u-1-",    "/znc-u--1",    "/znc-u-1-1x", "/znc-u-1-1_info", "/znc-u-x-1",
    "/znc-u-1-1-1", "/znc-u-+1-1",  "/znc-u- 1-1", "/ZNC-u-1-1",      "/znc-v-1-1",
    "/znc-u-0x1-1", "/znc-u-1-1\n", "/znc-u-1,1",  "/x-znc-u-1-1",    "/znc-u-1-1.",
};

// Invalid queue names, and the name of the daemon's own queue.
const std::vector<std::string> kOtherNames = {
    "",     "/",           "/znc",        "znc-u-1-1", "/a/b",
    "/../", "/znc-u-1-1/", "//znc-u-1-1", "/dev/null", "/znc-u-" + std::string(184, '1'),
};

class ForeignQueues {
  public:
    ForeignQueues()
    {
        for (const std::string& name : kForeignQueues)
            queues_.push_back(std::make_unique<Queue>(name, 1, ZNC_MSG_MAX_LEN));
    }
    // Returns the queues to which anything was written.
    [[nodiscard]] std::string written_to() const
    {
        std::string names;
        for (std::size_t i = 0; i < queues_.size(); i++) {
            char bytes[ZNC_MSG_MAX_LEN];
            if (znMsgQReceive(queues_[i]->get(), bytes, sizeof bytes, ZN_NO_WAIT) >= 0)
                names += kForeignQueues[i] + "\n";
        }
        return names;
    }

  private:
    std::vector<std::unique_ptr<Queue>> queues_;
};

class Hostile : public DaemonWorld {
  protected:
    // A container that must survive everything.
    void SetUp() override
    {
        DaemonWorld::SetUp();
        make_bundle(kBundle, {"/bin/sleep", "1000"});
        ASSERT_EQ(zncCreate("canary", kBundle, 0, nullptr), OK);
        ASSERT_EQ(zncStart("canary", ZNC_OPT_NO_WAIT), OK);
    }
    void TearDown() override
    {
        EXPECT_EQ(zncStatusGet("canary"), STATE_RUNNING);
        EXPECT_EQ(zncDelete("canary", ZNC_OPT_WHOLE_NAMESPACE), OK);
        EXPECT_GT(::waitpid(-1, nullptr, 0), 0);
        DaemonWorld::TearDown();
    }
};

TEST_F(Hostile, NoReplyIsSentToAForeignQueue)
{
    const ForeignQueues foreign;
    const Queue daemon_queue(ZNC_MSG_Q_NAME);
    for (const auto* names : {&kForeignQueues, &kOtherNames})
        for (const std::string& name : *names)
            for (const int command : {static_cast<int>(ZNC_ALIVE), static_cast<int>(ZNC_CREATE)}) {
                // The bundle does not exist, which causes a progress text.
                const zncMessage message =
                    request_of(command, R"({"containerId":"x","bundle":"/none"})", name);
                ASSERT_TRUE(daemon_queue.send(&message, sizeof message));
            }
    // requests are served in order: all earlier ones have been processed
    EXPECT_TRUE(zncDaemonIsAlive());
    EXPECT_EQ(foreign.written_to(), "");
}

// Generates the messages of one attacker.
class Attacker {
  public:
    Attacker(std::uint64_t seed, int number)
        : random_(seed + static_cast<std::uint64_t>(number)), daemon_(ZNC_MSG_Q_NAME),
          own_(raw_client::reply_name(0)), replies_(own_, 1, ZNC_MSG_MAX_LEN)
    {
    }

    // Sends one; returns false if the daemon did not answer a message that it must answer.
    bool attack()
    {
        switch (below(8)) {
        case 0:
            return send_short();
        case 1:
            return send_long();
        case 2:
            return send_lying_length();
        case 3:
            return send(named(std::string(ZNC_MSG_NAME_LEN, static_cast<char>('/' + below(10)))));
        case 4:
            return send(named(foreign_name()));
        case 5:
            return send(named(nobodys_name()));
        case 6:
            return send_noise();
        default:
            return call();
        }
    }

  private:
    std::size_t below(std::size_t limit)
    {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }
    template <class T> const T& one_of(const std::vector<T>& all) { return all[below(all.size())]; }

    // Any command with any text.
    zncMessage named(const std::string& name)
    {
        const auto command =
            below(4) > 0 ? static_cast<int>(below(10)) : static_cast<int>(random_());
        zncMessage message = request_of(command, text(), name);
        message.msgLvl = static_cast<std::uint8_t>(below(256));
        message.rsvd1 = message.rsvd2 = message.rsvd3 = static_cast<std::uint8_t>(below(256));
        return message;
    }
    const std::string& foreign_name()
    {
        return one_of(below(2) > 0 ? kForeignQueues : kOtherNames);
    }
    std::string nobodys_name()
    {
        return "/znc-u-" + std::to_string(5000000 + below(1000)) + "-" + std::to_string(random_());
    }

    std::string text()
    {
        static const std::vector<std::string> whole = {
            R"({})",
            R"([])",
            R"(null)",
            R"("containerId")",
            R"({"containerId":5,"bundle":[],"option":{}})",
            R"({"containerId":null,"bundle":null,"option":null,"signo":null})",
            R"({"containerId":"none","signo":"9","option":"2"})",
            R"({"containerId":"none","signo":1e999,"option":-1e999})",
            R"({"containerId":"none","signo":-9223372036854775809,"option":0.5})",
            R"({"containerId":{"containerId":"none"},"bundle":"/none"})",
            R"({"containerId":"../../none","bundle":"/none"})",
            R"({"containerId":"none","containerId":"other","bundle":"relative"})",
            R"({"containerId":"none","bundle":"/none","option":4294967296})",
            R"({"containerId":"none","handle":1,"HANDLE":-1})",
            R"({"containerId":"\u0000none","bundle":"/\u0000"})",
            R"({"Id":7})",
            R"({"Id":"none"})",
            R"({"containerId":"%s%n%s%n","bundle":"/%s%n%s%n"})",
            R"({"containerId":")" + std::string(300, 'a') + R"(","bundle":"/none"})",
            R"({"containerId":"none","bundle":"/)" + std::string(1500, 'b') + R"("})",
            std::string(1800, '['),
            R"({"a":)" + std::string(900, '{'),
        };
        std::string json = one_of(whole);
        for (std::size_t changes = below(4); changes > 0 && !json.empty(); changes--)
            json[below(json.size())] = static_cast<char>(below(256));
        if (below(4) == 0)
            json.resize(below(json.size() + 1));
        return json;
    }

    bool send(const zncMessage& message) { return daemon_.send(&message, sizeof message); }
    bool send_short()
    {
        const zncMessage message = named(nobodys_name());
        return daemon_.send(&message, below(sizeof message));
    }
    // The kernel refuses this message.
    bool send_long()
    {
        const std::string bytes(ZNC_MSG_MAX_LEN + 1 + below(5000), 'x');
        return !daemon_.send(bytes.data(), bytes.size()) && errno == EMSGSIZE;
    }
    bool send_lying_length()
    {
        zncMessage message = named(nobodys_name());
        message.dataLen = below(2) > 0 ? static_cast<std::uint32_t>(random_())
                                       : static_cast<std::uint32_t>(1800 + below(100));
        const std::size_t length = ZNC_MSG_HEADER_LEN + below(1 + ZNC_MSG_DATA_LIMIT);
        return daemon_.send(&message, length);
    }
    bool send_noise()
    {
        std::array<char, ZNC_MSG_MAX_LEN> bytes;
        for (char& byte : bytes)
            byte = static_cast<char>(random_());
        return daemon_.send(bytes.data(), bytes.size());
    }
    // From an existing reply queue: the daemon answers, whatever the message contains.
    bool call()
    {
        zncMessage message = named(own_);
        if (message.cmdId == ZNC_START) // would require a process id from the client
            message.cmdId = ZNC_STATE;
        return send(message) &&
               replies_.receive(10 * znSysClkRateGet()).size() >= ZNC_MSG_HEADER_LEN;
    }

    std::mt19937_64 random_;
    Queue daemon_;
    std::string own_;
    Queue replies_;
};

TEST_F(Hostile, AfterAFloodOfMalformedMessagesTheDaemonServesAndNobodyElseGotAnything)
{
    constexpr int kAttackers = 4;
    const int messages = size_of("HOSTILE_MESSAGES", 20000) / kAttackers;
    const auto seed = static_cast<std::uint64_t>(
        size_of("HOSTILE_SEED", static_cast<int>(std::random_device()() >> 1) + 1));
    const ForeignQueues foreign;
    const long before = daemon_memory();
    ClientGroup attackers(kAttackers, [&](int number) {
        Attacker attacker(seed, number);
        for (int i = 0; i < messages; i++)
            if (!attacker.attack())
                return 1;
        return 0;
    });
    // A regular client is served at the same time.
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(zncStatusGet("canary"), STATE_RUNNING) << std::hex << errno;
        ASSERT_EQ(zncStatusGet("none"), STATE_UNKNOWN);
        ASSERT_EQ(errno, ENODEV);
    }
    EXPECT_EQ(attackers.wait(), std::vector<int>(kAttackers, 0)) << "seed " << seed;
    EXPECT_TRUE(zncDaemonIsAlive());
    EXPECT_EQ(foreign.written_to(), "") << "seed " << seed;
    std::printf("%d malformed messages, seed %" PRIu64 ": the daemon's memory %ld KiB before, %ld "
                "KiB after\n",
                messages * kAttackers, seed, before, daemon_memory());
}

} // namespace
