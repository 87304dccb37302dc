#include "zncRuntimeClient.hpp"

#include "alloc_fault.hpp"
#include "fake_daemon.hpp"
#include "other_queue.hpp"
#include "zarnel/task.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using fake_daemon::answering;
using fake_daemon::FakeDaemon;
using fake_daemon::queue_names;
using fake_daemon::text_of;

const std::string kSuccess = R"({"errno":0,"body":[]})";

class ClientCall : public testing::Test {
  protected:
    void SetUp() override { unsetenv("ZNC_VERBOSE"); }
    void TearDown() override
    {
        unsetenv("ZNC_VERBOSE");
        EXPECT_EQ(queue_names(), std::vector<std::string>()) << "a queue was left behind";
    }

    // Makes a call with one string parameter; returns the text of its reply, or "" on failure.
    static std::string call(int cmdId, const std::string& value)
    {
        zncParam param = znc::string_param("s", value.c_str());
        char* text = nullptr;
        const STATUS status = zncCall(cmdId, &param, 1, &text);
        const znc::MallocPtr<char> owned(text);
        return status == OK ? text : "";
    }

    // Makes a call that must fail; returns the error number.
    static int failing_call()
    {
        errno = 4242;
        EXPECT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), ERROR);
        return errno;
    }

    // Returns the length of a value with which the text of the request, {"s":"..."}, has `total`
    // bytes.
    static std::string value_for_text_of(std::size_t total) { return std::string(total - 8, 'v'); }
};

std::string next_reply_queue(FakeDaemon& daemon)
{
    const std::string last = daemon.requests().back().message.name;
    const std::size_t dash = last.rfind('-');
    return last.substr(0, dash + 1) + std::to_string(std::stoul(last.substr(dash + 1)) + 1);
}

// ---------------------------------------------------------------- the request

TEST_F(ClientCall, RequestIsOneWholeMessageWithHeaderAndUnterminatedText)
{
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(call(ZNC_DELETE, "web"), kSuccess);
    const auto requests = daemon.requests(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].length, 2048U);
    EXPECT_EQ(requests[0].message.cmdId, ZNC_DELETE);
    EXPECT_EQ(requests[0].message.msgLvl, 2);
    EXPECT_EQ(text_of(requests[0].message), R"({"s":"web"})");
}

TEST_F(ClientCall, RequestWithoutParametersIsAnEmptyObject)
{
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(zncCall(ZNC_LIST, nullptr, 0, nullptr), OK);
    EXPECT_EQ(text_of(daemon.requests(1)[0].message), "{}");
}

TEST_F(ClientCall, ReplyQueueIsNamedAfterDaemonQueueProcessAndCounter)
{
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string expected = next_reply_queue(daemon);
    EXPECT_EQ(expected.find("/znc-u-" + std::to_string(getpid()) + "-"), 0U);
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    EXPECT_EQ(daemon.requests(2)[1].message.name, expected);
}

TEST(ClientCounterDeathTest, FirstCallOfAProcessUses0)
{
    // The program is executed again, so that the counter starts at 0.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            FakeDaemon daemon(answering(kSuccess));
            if (zncCall(ZNC_ALIVE, nullptr, 0, nullptr) != OK)
                _exit(1);
            const std::string name = daemon.requests(1)[0].message.name;
            _exit(name == "/znc-u-" + std::to_string(getpid()) + "-0" ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
    znMsgQUnlink(ZNC_MSG_Q_NAME);
}

TEST_F(ClientCall, RequestOf1843BytesIsSent)
{
    FakeDaemon daemon(answering(kSuccess));
    const std::string value = value_for_text_of(1843);
    EXPECT_EQ(call(ZNC_CREATE, value), kSuccess);
    const auto requests = daemon.requests(1);
    EXPECT_EQ(requests[0].message.dataLen, 1843U);
    EXPECT_EQ(text_of(requests[0].message), R"({"s":")" + value + R"("})");
}

TEST_F(ClientCall, RequestOf1844BytesFailsWithENOMEMBeforeAnyQueueIsTouched)
{
    // No daemon runs: if the daemon queue had been opened, the error number would be different.
    errno = 0;
    EXPECT_EQ(call(ZNC_CREATE, value_for_text_of(1844)), "");
    EXPECT_EQ(errno, ENOMEM);
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string next = next_reply_queue(daemon);
    EXPECT_EQ(call(ZNC_CREATE, value_for_text_of(1844)), "");
    EXPECT_EQ(daemon.requests().size(), 1U);
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    EXPECT_EQ(daemon.requests(2)[1].message.name, next) << "no queue name was used up";
}

TEST_F(ClientCall, RequestThatCannotBeBuiltFailsWithENOMEM)
{
    zncParam param = znc::object_param("o", nullptr);
    errno = 0;
    EXPECT_EQ(zncCall(ZNC_CREATE, &param, 1, nullptr), ERROR);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ClientCall, EnvironmentVariableSetsTheWantedVerbosity)
{
    FakeDaemon daemon(answering(kSuccess));
    std::size_t sent = 0;
    const auto level_for = [&](const char* value) {
        if (value != nullptr)
            setenv("ZNC_VERBOSE", value, 1);
        else
            unsetenv("ZNC_VERBOSE");
        EXPECT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
        return int{daemon.requests(++sent).back().message.msgLvl};
    };
    EXPECT_EQ(level_for(nullptr), 2);
    EXPECT_EQ(level_for("0"), 0);
    EXPECT_EQ(level_for("1"), 1);
    EXPECT_EQ(level_for("3"), 3);
    EXPECT_EQ(level_for("255"), 255);
    EXPECT_EQ(level_for("256"), 0);
    EXPECT_EQ(level_for("259"), 3);
    EXPECT_EQ(level_for(""), 0);
    EXPECT_EQ(level_for("loud"), 0);
    EXPECT_EQ(level_for("0x10"), 0);
}

// ---------------------------------------------------------------- the reply

TEST_F(ClientCall, RepliesOfEveryLengthAroundAPieceArriveWhole)
{
    const std::size_t header = ZNC_MSG_HEADER_LEN;
    for (const std::size_t total :
         {header, header + 1, std::size_t{2047}, std::size_t{2048}, std::size_t{2049},
          std::size_t{4096}, std::size_t{4097}, header + 65535}) {
        std::string text(total - header, 'r');
        if (!text.empty())
            text.back() = 'e';
        FakeDaemon daemon(answering(text));
        char* got = nullptr;
        ASSERT_EQ(zncCall(ZNC_LIST, nullptr, 0, &got), OK) << total;
        const znc::MallocPtr<char> owned(got);
        EXPECT_EQ(std::string(got), text) << total;
    }
}

TEST_F(ClientCall, ProgressTextsArePrintedAfterTheReplyWithAPeriodEach)
{
    FakeDaemon daemon([](const zncMessage& request) {
        fake_daemon::post_info(request, "first");
        fake_daemon::post_info(request, "ends with one.");
        fake_daemon::post_info(request, "");
        fake_daemon::reply(request, kSuccess);
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(ZNC_CREATE, "web"), kSuccess);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first.\nends with one..\n.\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_CREATE, nullptr, 0, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first.\nends with one..\n.\n");
}

TEST_F(ClientCall, InfoQueueHolds20TextsOf255Bytes)
{
    FakeDaemon daemon([](const zncMessage& request) {
        for (int i = 0; i < 25; i++)
            fake_daemon::post_info(request, std::string(254, static_cast<char>('a' + i)));
        fake_daemon::reply(request, kSuccess);
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_CREATE, nullptr, 0, nullptr), OK);
    std::string expected;
    for (int i = 0; i < 20; i++)
        expected += std::string(254, static_cast<char>('a' + i)) + ".\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
}

// ---------------------------------------------------------------- failures

TEST_F(ClientCall, NoDaemonFailsWithItsCodeAndLeavesNoQueue)
{
    EXPECT_EQ(failing_call(), S_zncLib_DAEMON_NOT_RUNNING);
    errno = 0;
    EXPECT_EQ(zncCallQ("/elsewhere", ZNC_ALIVE, nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_DAEMON_NOT_RUNNING);
}

TEST_F(ClientCall, ReplyQueueThatExistsAlreadyFailsWithNumber0)
{
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string name = next_reply_queue(daemon);
    const OtherQueue other(name);
    EXPECT_EQ(failing_call(), 0);
    EXPECT_EQ(daemon.requests().size(), 1U);
    const auto left = queue_names();
    EXPECT_EQ(left, (std::vector<std::string>{"znc", name.substr(1)})) << "not ours to remove";
}

// Runs `body` in a child process; returns true if it returned 0.
bool in_a_dead_process(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && status == 0;
}

TEST_F(ClientCall, QueuesThatAnotherUserMadeAheadDoNotKeepACallFromBeingMade)
{
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string name = next_reply_queue(daemon);
    ASSERT_TRUE(in_a_dead_process([&] {
        if (::setuid(65534) != 0)
            return 1;
        ::umask(0);
        for (const std::string& squatted : {name, name + "_info"})
            if (::mq_open(squatted.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666, nullptr) < 0)
                return 2;
        return 0;
    }));
    EXPECT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    EXPECT_EQ(daemon.requests(2)[1].message.name, name) << "the name stays";
    EXPECT_EQ(queue_names(), (std::vector<std::string>{"znc"}));
}

TEST_F(ClientCall, QueuesThatADeadProcessOfTheSameNumberLeftAreReplaced)
{
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string name = next_reply_queue(daemon);
    ASSERT_TRUE(in_a_dead_process([&] {
        const auto make = [](const std::string& left) {
            return znMsgQOpen(left.c_str(), 1, 255, 0, ZN_MSG_Q_CREATE_EXCLUSIVE) >= 0;
        };
        return make(name) && make(name + "_info") ? 0 : 1;
    }));
    EXPECT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    EXPECT_EQ(daemon.requests(2)[1].message.name, name);
}

TEST_F(ClientCall, ToADeadDaemonWhoseQueueIsFullFailsWithNumber0InsteadOfWaiting)
{
    ASSERT_TRUE(in_a_dead_process([] {
        const MSG_Q_ID left = znMsgQOpen(ZNC_MSG_Q_NAME, 32, ZNC_MSG_MAX_LEN, ZN_MSG_Q_PRIORITY,
                                         ZN_MSG_Q_CREATE_EXCLUSIVE);
        for (int i = 0; i < 32; i++)
            if (znMsgQSend(left, "x", 1, ZN_NO_WAIT, ZN_MSG_PRI_NORMAL) != OK)
                return 1;
        return 0;
    }));
    EXPECT_EQ(failing_call(), 0);
    EXPECT_FALSE(zncDaemonIsAlive());
    znMsgQUnlink(ZNC_MSG_Q_NAME);
}

TEST_F(ClientCall, InfoQueueThatExistsAlreadyFailsWithNumber0)
{
    FakeDaemon daemon(answering(kSuccess));
    ASSERT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
    const std::string name = next_reply_queue(daemon) + "_info";
    const OtherQueue other(name);
    EXPECT_EQ(failing_call(), 0);
    EXPECT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(queue_names(), (std::vector<std::string>{"znc", name.substr(1)}));
}

// Both names are truncated to the same 191 bytes, so that the second queue exists already.
TEST_F(ClientCall, OverlongDaemonQueueNameFailsWithNumber0AndSendsNothing)
{
    const OtherQueue daemon("/" + std::string(199, 'd'));
    errno = 4242;
    EXPECT_EQ(zncCallQ(daemon.name().c_str(), ZNC_ALIVE, nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(queue_names(), std::vector<std::string>{daemon.name().substr(1)});
    zncMessage request;
    EXPECT_LT(znMsgQReceive(daemon.get(), &request, sizeof request, ZN_NO_WAIT), 0);
}

TEST_F(ClientCall, RequestThatCannotBeSentFailsWithNumber0)
{
    FakeDaemon daemon(answering(kSuccess), 512);
    EXPECT_EQ(failing_call(), 0);
    EXPECT_EQ(queue_names(), std::vector<std::string>{"znc"});
}

TEST_F(ClientCall, NoReplyInTimeFailsWithNumber0AndLosesTheProgressTexts)
{
    FakeDaemon daemon([](const zncMessage& request) { fake_daemon::post_info(request, "lost"); });
    testing::internal::CaptureStdout();
    EXPECT_EQ(failing_call(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(daemon.requests().size(), 1U);
}

TEST_F(ClientCall, BytesThatAreNoReplyFailWithNumber0)
{
    FakeDaemon daemon(
        [](const zncMessage& request) { fake_daemon::send_bytes(request.name, "short"); });
    EXPECT_EQ(failing_call(), 0);
}

// Makes each allocation of a call fail in turn.
TEST_F(ClientCall, ShortMemoryFailsWithENOMEMOrNumber0AndLeavesNothing)
{
    FakeDaemon daemon([](const zncMessage& request) {
        if (request.cmdId == ZNC_CREATE)
            fake_daemon::post_info(request, "text");
        fake_daemon::reply(request, kSuccess);
    });
    zncParam param = znc::string_param("s", "v");
    struct Outcome {
        STATUS status;
        int number;
        bool reachedDaemon;
        std::string printed;
    };
    const auto call_failing = [&](unsigned n, unsigned* total) {
        const std::size_t before = daemon.requests().size();
        char* text = nullptr;
        testing::internal::CaptureStdout();
        alloc_fault::arm(n);
        errno = 4242;
        const STATUS status = zncCall(ZNC_CREATE, &param, 1, &text);
        const int number = errno;
        const unsigned asked = alloc_fault::disarm();
        std::string out = testing::internal::GetCapturedStdout();
        const znc::MallocPtr<char> owned(text);
        if (total != nullptr)
            *total = asked;
        // Once a later request has been answered, the first one has been recorded if it was sent.
        EXPECT_EQ(zncCall(ZNC_ALIVE, nullptr, 0, nullptr), OK);
        return Outcome{status, number, daemon.requests().size() == before + 2, std::move(out)};
    };
    unsigned total = 0;
    EXPECT_EQ(call_failing(0, &total).status, OK);
    unsigned early = 0;
    unsigned noBuffer = 0;
    unsigned noCopy = 0;
    for (unsigned n = 1; n <= total; n++) {
        const Outcome outcome = call_failing(n, nullptr);
        EXPECT_EQ(queue_names(), std::vector<std::string>{"znc"});
        if (outcome.status == OK)
            continue;
        EXPECT_EQ(outcome.printed, "");
        if (!outcome.reachedDaemon && outcome.number == ENOMEM)
            early++; // the JSON object, its text or the message
        else if (outcome.reachedDaemon && outcome.number == 0)
            noBuffer++; // the receive buffer
        else if (outcome.reachedDaemon && outcome.number == ENOMEM)
            noCopy++; // the caller's copy: the error number is set by the allocator
        else
            ADD_FAILURE() << n << ": " << outcome.number;
    }
    EXPECT_GE(early, 3U);
    EXPECT_EQ(noBuffer, 1U);
    EXPECT_EQ(noCopy, 1U);
}

// ---------------------------------------------------------------- many at once

TEST_F(ClientCall, ManyTasksAtOnceEachGetTheirOwnReply)
{
    FakeDaemon daemon(
        [](const zncMessage& request) { fake_daemon::reply(request, text_of(request)); });
    constexpr int kTasks = 8;
    constexpr int kCalls = 25;
    std::atomic<int> wrong{0};
    std::vector<std::thread> tasks;
    for (int t = 0; t < kTasks; t++)
        tasks.emplace_back([&wrong, t] {
            for (int i = 0; i < kCalls; i++) {
                const std::string value = std::to_string(t) + "/" + std::to_string(i);
                if (call(ZNC_STATE, value) != R"({"s":")" + value + R"("})")
                    wrong++;
            }
        });
    for (std::thread& task : tasks)
        task.join();
    EXPECT_EQ(wrong.load(), 0);
    std::set<std::string> names;
    for (const auto& request : daemon.requests())
        names.insert(request.message.name);
    EXPECT_EQ(names.size(), std::size_t{kTasks * kCalls});
}

} // namespace
