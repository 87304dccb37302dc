// Tests of the daemon's replies and of its loop.
#include "alloc_fault.hpp"
#include "running_daemon.hpp"
#include "service_client.hpp"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <optional>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

using fake_daemon::queue_names;
using service_client::ClientQueues;
using service_client::kReplyName;
using service_client::kSuccess;
using service_client::request_of;
using service_client::Service;

// ---------------------------------------------------------------- replying

class Replying : public Service {
  protected:
    static STATUS reply(cJSON* body, int errCode)
    {
        std::string name = kReplyName;
        return zncReplyMessage(name.data(), ZNC_LIST, body, errCode);
    }
    // A body whose reply {"errno":0,"body":["…"]} is `total` bytes long.
    static znc::CJsonPtr body_for_text_of(std::size_t total)
    {
        znc::CJsonPtr body(cJSON_CreateArray());
        const std::string text(total - kSuccess.size() - 2, 'b');
        cJSON_AddItemToArray(body.get(), cJSON_CreateString(text.c_str()));
        return body;
    }
};

TEST_F(Replying, BodyStaysTheCallers)
{
    ClientQueues client;
    const znc::CJsonPtr body(cJSON_Parse("[1,2]"));
    EXPECT_EQ(reply(body.get(), -5), OK);
    EXPECT_EQ(client.reply_text(), R"({"errno":-5,"body":[1,2]})");
    EXPECT_EQ(cJSON_GetArraySize(body.get()), 2);
}

TEST_F(Replying, PiecesHaveAtMost2048Bytes)
{
    for (const std::size_t total : {2048U, 2049U, 4096U, 4097U}) {
        ClientQueues client;
        const auto body = body_for_text_of(total - ZNC_MSG_HEADER_LEN);
        EXPECT_EQ(reply(body.get(), 0), OK);
        std::vector<std::size_t> expected(total / 2048, 2048);
        if (total % 2048 != 0)
            expected.push_back(total % 2048);
        std::vector<std::size_t> lengths;
        for (const std::string& piece : client.pieces())
            lengths.push_back(piece.size());
        EXPECT_EQ(lengths, expected) << total;
    }
}

TEST_F(Replying, TextOf65535BytesIsTheLongest)
{
    ClientQueues client;
    EXPECT_EQ(reply(body_for_text_of(65535).get(), 0), OK);
    EXPECT_EQ(client.reply_text().size(), 65535U);
    EXPECT_EQ(reply(body_for_text_of(65536).get(), 0), ERROR);
    EXPECT_EQ(reply(body_for_text_of(70000).get(), 0), ERROR);
    EXPECT_EQ(client.reply_text(), "(none)");
}

TEST_F(Replying, MissingQueueFails)
{
    const znc::CJsonPtr body(cJSON_CreateArray());
    EXPECT_EQ(reply(body.get(), 0), ERROR);
}

TEST_F(Replying, MissingBodyFails)
{
    ClientQueues client;
    EXPECT_EQ(reply(nullptr, 0), ERROR);
    EXPECT_EQ(client.reply_text(), "(none)");
}

TEST_F(Replying, PieceThatIsNotTakenWithinASecondFails)
{
    ClientQueues client;
    client.fill();
    const znc::CJsonPtr body(cJSON_CreateArray());
    EXPECT_EQ(reply(body.get(), 0), ERROR);
}

TEST_F(Replying, NameWithoutTerminatorIsReadNoFurtherThanItsField)
{
    const znc::CJsonPtr body(cJSON_CreateArray());
    char name[ZNC_MSG_NAME_LEN];
    std::memset(name, 'n', sizeof name);
    name[0] = '/';
    EXPECT_EQ(zncReplyMessage(name, ZNC_LIST, body.get(), 0), ERROR);
}

TEST_F(Replying, ShortMemoryFailsAndSendsNothing)
{
    const znc::CJsonPtr body(cJSON_Parse(R"(["x"])"));
    ClientQueues client;
    alloc_fault::arm(0);
    EXPECT_EQ(reply(body.get(), 0), OK);
    const unsigned total = alloc_fault::disarm();
    client.pieces();
    unsigned failures = 0;
    for (unsigned n = 1; n <= total; n++) {
        alloc_fault::arm(n);
        const STATUS status = reply(body.get(), 0);
        alloc_fault::disarm();
        // A reply without the key "errno" is valid; the client then returns -1.
        const std::string text = client.reply_text();
        if (status == ERROR) {
            EXPECT_EQ(text, "(none)") << n;
            failures++;
        } else {
            EXPECT_NE(text.find(R"("body":["x"])"), std::string::npos) << n;
        }
    }
    EXPECT_GE(failures, 5U);
}

// ---------------------------------------------------------------- the daemon task

class Daemon : public Service {};

TEST_F(Daemon, IsAliveOnlyWhileItServes)
{
    EXPECT_EQ(zncDaemonIsAlive(), FALSE);
    {
        RunningDaemon daemon;
        EXPECT_EQ(zncDaemonIsAlive(), TRUE);
    }
    EXPECT_EQ(zncDaemonIsAlive(), FALSE);
}

TEST_F(Daemon, IsNotAliveWhenItsQueueStandsButNobodyAnswersWell)
{
    for (const char* text : {"not json", R"({"errno":5,"body":[]})", R"({"body":[]})"}) {
        fake_daemon::FakeDaemon daemon(fake_daemon::answering(text));
        EXPECT_EQ(zncDaemonIsAlive(), FALSE) << text;
    }
    fake_daemon::FakeDaemon silent([](const zncMessage&) {});
    EXPECT_EQ(zncDaemonIsAlive(), FALSE);
}

TEST_F(Daemon, MakesItsQueueFor32RequestsAndInitialisesTheRegistry)
{
    RunningDaemon daemon;
    EXPECT_EQ(queue_names(), std::vector<std::string>{"znc"});
    const mqd_t queue = mq_open(ZNC_MSG_Q_NAME, O_RDONLY | O_CLOEXEC);
    mq_attr shape = {};
    EXPECT_EQ(mq_getattr(queue, &shape), 0);
    EXPECT_EQ(shape.mq_maxmsg, 32);
    EXPECT_EQ(shape.mq_msgsize, 2048);
    mq_close(queue);
    EXPECT_EQ(fake_registry::calls().front().function, "zncContainerInit");
}

TEST_F(Daemon, FailingRegistryInitIsIgnored)
{
    fake_registry::fail("zncContainerInit", ENOMEM);
    RunningDaemon daemon;
    EXPECT_EQ(zncDaemonIsAlive(), TRUE);
}

TEST_F(Daemon, SecondOneCannotStart)
{
    RunningDaemon daemon;
    errno = 0;
    EXPECT_EQ(zncDaemonTask(), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(zncDaemonIsAlive(), TRUE) << "the first one's queue is untouched";
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE) << "the task stayed safe from deletion";
}

TEST_F(Daemon, EndsWithErrorAndFreesItsName)
{
    for (int round = 0; round < 3; round++) {
        RunningDaemon daemon;
        EXPECT_EQ(zncDaemonIsAlive(), TRUE);
        daemon.stop();
        EXPECT_EQ(daemon.status(), ERROR);
        EXPECT_EQ(daemon.error_number(), ECANCELED);
        EXPECT_EQ(daemon.cancel_state_after(), PTHREAD_CANCEL_ENABLE);
        EXPECT_EQ(queue_names(), std::vector<std::string>());
    }
}

TEST_F(Daemon, IsSafeFromDeletionWhileItServes)
{
    std::atomic<int> state{-1};
    fake_registry::on_call([&state](const fake_registry::Call&) {
        int old = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
        state = old;
    });
    RunningDaemon daemon;
    EXPECT_EQ(zncCall(ZNC_LIST, nullptr, 0, nullptr), OK);
    EXPECT_EQ(state.load(), PTHREAD_CANCEL_DISABLE);
}

TEST_F(Daemon, ErrorNumberDoesNotCarryOverToTheNextRequest)
{
    RunningDaemon daemon;
    zncParam param = znc::string_param("containerId", "none");
    EXPECT_EQ(zncCall(ZNC_DELETE, &param, 1, nullptr), OK);
    EXPECT_EQ(zncCall(ZNC_LIST, nullptr, 0, nullptr), OK);
    EXPECT_EQ(fake_registry::calls().back().function, "zncContainerNext");
    EXPECT_EQ(fake_registry::calls().back().errnoBefore, 0);
}

// Sends raw requests, then a valid one: when that is answered, all of them have been processed.
class DaemonDrops : public Service {
  protected:
    void SetUp() override
    {
        Service::SetUp();
        daemon_.emplace();
        client_.emplace();
    }
    void TearDown() override
    {
        daemon_.reset();
        client_.reset();
        Service::TearDown();
    }
    static void send(const zncMessage& message, std::size_t length = sizeof(zncMessage))
    {
        const MSG_Q_ID queue = znMsgQOpen(ZNC_MSG_Q_NAME, 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING);
        ASSERT_GE(queue, 0);
        EXPECT_EQ(znMsgQSend(queue, &message, length, ZN_WAIT_FOREVER, 0), OK);
        znMsgQClose(queue);
        EXPECT_EQ(zncDaemonIsAlive(), TRUE);
    }
    std::optional<RunningDaemon> daemon_;
    std::optional<ClientQueues> client_;
};

TEST_F(DaemonDrops, RequestOf1844BytesAndMoreGetsNoReply)
{
    zncMessage message = request_of(ZNC_ALIVE, "{}");
    send(message);
    EXPECT_EQ(client_->reply_text(), kSuccess);
    for (const std::uint32_t len : {1844U, 1845U, 0xffffffffU}) {
        message.dataLen = len;
        send(message);
        EXPECT_EQ(client_->reply_text(), "(none)") << len;
    }
    message = request_of(ZNC_ALIVE, std::string(1843, ' '));
    send(message);
    EXPECT_EQ(client_->reply_text(), kSuccess);
}

TEST_F(DaemonDrops, TruncatedRequestsGetNoReply)
{
    const zncMessage message = request_of(ZNC_ALIVE, "{}");
    for (const std::size_t len :
         {std::size_t{0}, std::size_t{1}, std::size_t{203}, std::size_t{205}}) {
        send(message, len);
        EXPECT_EQ(client_->reply_text(), "(none)") << len;
    }
    send(message, 206);
    EXPECT_EQ(client_->reply_text(), kSuccess);
}

TEST_F(DaemonDrops, ForeignQueuesGetNeitherReplyNorProgress)
{
    fake_registry::on_call([](const fake_registry::Call&) {
        char format[] = "%s";
        zncSendMsg(1, format, "progress");
    });
    ClientQueues foreign("/foreign");
    ClientQueues alike("/znc-u-1-1x");
    for (const char* name : {"/foreign", "/znc-u-1-1x", "/znc", "", "/nowhere"})
        send(request_of(ZNC_DELETE, R"({"containerId":"web"})", name));
    EXPECT_TRUE(foreign.pieces().empty());
    EXPECT_TRUE(foreign.progress().empty());
    EXPECT_TRUE(alike.pieces().empty());
    EXPECT_TRUE(alike.progress().empty());
    for (const auto& call : fake_registry::calls())
        EXPECT_NE(call.function, "zncContainerDelete") << "a dropped request was carried out";
}

TEST_F(DaemonDrops, AnythingInAMessageIsSurvived)
{
    std::uint32_t seed = 12345;
    const auto random = [&seed] { return seed = seed * 1664525U + 1013904223U; };
    for (int round = 0; round < 300; round++) {
        zncMessage message = request_of(static_cast<int>(random() >> 28), R"({"containerId":"w"})");
        auto* bytes = reinterpret_cast<unsigned char*>(&message);
        for (int i = 0; i < 30; i++) // mostly after the name, so that most requests are processed
            bytes[190 + (random() >> 8) % (sizeof message - 190)] =
                static_cast<unsigned char>(random() >> 24);
        const MSG_Q_ID queue = znMsgQOpen(ZNC_MSG_Q_NAME, 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING);
        ASSERT_GE(queue, 0);
        EXPECT_EQ(znMsgQSend(queue, &message, sizeof message, ZN_WAIT_FOREVER, 0), OK);
        znMsgQClose(queue);
        if (round % 20 == 19) {
            EXPECT_EQ(zncDaemonIsAlive(), TRUE);
            client_->pieces();
        }
    }
}

TEST_F(Daemon, ClientsGetRepliesOfSeveralPieces)
{
    for (int i = 100; i < 200; i++)
        fake_registry::add("container-" + std::to_string(i), STATE_CREATED, std::string(300, 'b'));
    RunningDaemon daemon;
    char* text = nullptr;
    ASSERT_EQ(zncCall(ZNC_LIST, nullptr, 0, &text), OK);
    const znc::MallocPtr<char> owned(text);
    const znc::CJsonPtr root(cJSON_Parse(text));
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "body")), 100);
}

TEST_F(Daemon, ReplyThatIsTooLongIsLostAndTheNextRequestServed)
{
    for (int i = 100; i < 200; i++)
        fake_registry::add("container-" + std::to_string(i), STATE_CREATED, std::string(1000, 'b'));
    RunningDaemon daemon;
    errno = 4242;
    EXPECT_EQ(zncCall(ZNC_LIST, nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(zncDaemonIsAlive(), TRUE);
}

TEST_F(Daemon, ProgressReachesTheClientThatAsked)
{
    fake_registry::on_call([](const fake_registry::Call& call) {
        char text[] = "creating %s";
        if (call.function == "zncContainerCreate")
            zncSendMsg(1, text, call.id->c_str());
    });
    RunningDaemon daemon;
    zncParam params[] = {znc::string_param("containerId", "web"),
                         znc::string_param("bundle", "/b")};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_CREATE, params, 2, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "creating web.\n");
    setenv("ZNC_VERBOSE", "0", 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_CREATE, params, 2, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    setenv("ZNC_VERBOSE", "3", 1); // ignored: the level remains 0
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_CREATE, params, 2, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    unsetenv("ZNC_VERBOSE");
}

TEST_F(Daemon, VerbosityOf256SilencesProgress)
{
    fake_registry::on_call([](const fake_registry::Call&) {
        char format[] = "%s";
        zncSendMsg(1, format, "text");
    });
    RunningDaemon daemon;
    zncParam param = znc::string_param("containerId", "web");
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_DELETE, &param, 1, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "text.\n");
    setenv("ZNC_VERBOSE", "256", 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_DELETE, &param, 1, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    unsetenv("ZNC_VERBOSE");
}

TEST_F(Daemon, ProgressTextsAreCutTo254Characters)
{
    fake_registry::on_call([](const fake_registry::Call&) {
        char format[] = "%s";
        zncSendMsg(1, format, std::string(300, 'p').c_str());
    });
    RunningDaemon daemon;
    zncParam param = znc::string_param("containerId", "web");
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncCall(ZNC_DELETE, &param, 1, nullptr), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(254, 'p') + ".\n");
}

} // namespace
