// Tests of how the client processes a reply: receiving, printing, parsing.
#include "alloc_fault.hpp"
#include "other_queue.hpp"
#include "zncRuntimeClient.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <string>

namespace {

// ---------------------------------------------------------------- receiving

class MessageRecv : public testing::Test {
  protected:
    static zncMessage header(std::uint32_t dataLen)
    {
        zncMessage message = {};
        message.dataLen = dataLen;
        return message;
    }
    static std::string bytes(std::uint32_t dataLen, std::size_t sent)
    {
        const zncMessage head = header(dataLen);
        return std::string(reinterpret_cast<const char*>(&head), ZNC_MSG_HEADER_LEN) +
               std::string(sent, 'd');
    }
    znc::MallocPtr<zncMessage> receive() { return zncMessageRecv(queue_.get(), kShort); }

    // Returns the number of messages left in the queue.
    int left()
    {
        int n = 0;
        char buf[ZNC_MSG_MAX_LEN];
        while (znMsgQReceive(queue_.get(), buf, sizeof buf, ZN_NO_WAIT) >= 0)
            n++;
        return n;
    }

    static constexpr int kShort = 3;
    OtherQueue queue_{"/recv-test", 8};
};

TEST_F(MessageRecv, ReplyOf2048BytesIsOnePiece)
{
    queue_.put(bytes(1844, 1844));
    queue_.put("next");
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(znc::message_data(reply.get()), 1844), std::string(1844, 'd'));
    EXPECT_EQ(left(), 1);
}

TEST_F(MessageRecv, ReplyOf2049BytesIsTwoPieces)
{
    queue_.put(bytes(1845, 1844));
    queue_.put("e");
    queue_.put("next");
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(znc::message_data(reply.get()), 1845), std::string(1844, 'd') + "e");
    EXPECT_EQ(left(), 1);
}

TEST_F(MessageRecv, PieceAsksForNoMoreThanRemains)
{
    queue_.put(bytes(6, 1));
    queue_.put("abc");
    queue_.put("deFGHIJ");
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(znc::message_data(reply.get()), 6), "dabcde");
}

TEST_F(MessageRecv, PieceThatDoesNotComeLeavesTheRestEmpty)
{
    queue_.put(bytes(10, 4));
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(znc::message_data(reply.get()), 10),
              std::string("dddd") + std::string(6, '\0'));
}

TEST_F(MessageRecv, EmptyPieceEndsTheReply)
{
    queue_.put(bytes(10, 4));
    queue_.put("");
    queue_.put("late");
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(znc::message_data(reply.get()), 5), std::string("dddd\0", 5));
    EXPECT_EQ(left(), 1);
}

TEST_F(MessageRecv, NothingInTimeIsNull)
{
    EXPECT_EQ(receive(), nullptr);
}

TEST_F(MessageRecv, LessThanAHeaderIsNull)
{
    queue_.put(bytes(0, 0).substr(0, ZNC_MSG_HEADER_LEN - 1));
    EXPECT_EQ(receive(), nullptr);
}

TEST_F(MessageRecv, MoreBytesThanAnnouncedAreOneReply)
{
    queue_.put(bytes(2, 9));
    const auto reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->dataLen, 2U);
}

TEST_F(MessageRecv, SixtyFourKilobytesAndMoreAreNoReply)
{
    for (const std::uint32_t len : {65536U, 0x7fffffffU, 0xffffffffU}) {
        queue_.put(bytes(len, 1844));
        EXPECT_EQ(receive(), nullptr) << len;
    }
}

TEST_F(MessageRecv, WithoutMemoryIsNull)
{
    for (unsigned n = 1; n <= 2; n++) {
        queue_.put(bytes(1845, 1844));
        queue_.put("e");
        alloc_fault::arm(n);
        const auto reply = receive();
        alloc_fault::disarm();
        EXPECT_EQ(reply, nullptr) << n;
        left();
    }
}

TEST(MessagesPrint, InvalidHandlePrintsNothing)
{
    testing::internal::CaptureStdout();
    zncMessagesPrint(ZN_MSG_Q_INVALID);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(MessagesPrint, TakesAtMost255BytesOfAText)
{
    const OtherQueue queue("/print-test", 2);
    queue.put(std::string(300, 'p'));
    queue.put("");
    testing::internal::CaptureStdout();
    zncMessagesPrint(queue.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(255, 'p') + ".\n.\n");
}

TEST(Atomic64Inc, GivesTheValueBefore)
{
    std::atomic<std::uint64_t> counter{41};
    EXPECT_EQ(znAtomic64Inc(&counter), 41U);
    EXPECT_EQ(counter.load(), 42U);
}

// ---------------------------------------------------------------- the reply's check

struct Checked {
    STATUS status;
    int number;
    std::string body;
};

Checked check(const char* text)
{
    const znc::CJsonPtr root(text != nullptr ? cJSON_Parse(text) : nullptr);
    int number = 4242;
    cJSON* body = reinterpret_cast<cJSON*>(&number);
    const STATUS status = zncResponseCheck(root.get(), &number, &body);
    const znc::CJsonText printed(body != nullptr ? cJSON_PrintUnformatted(body) : nullptr);
    return {status, number, body != nullptr ? printed.get() : "(none)"};
}

void expect_checked(const Checked& got, STATUS status, int number, const char* body)
{
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(got.number, number);
    EXPECT_EQ(got.body, body);
}

TEST(ResponseCheck, NumberAndBodyAreHandedOut)
{
    expect_checked(check(R"({"errno":0,"body":[1]})"), OK, 0, "[1]");
    expect_checked(check(R"({"errno":19,"body":[]})"), ERROR, 19, "[]");
}

TEST(ResponseCheck, NullReplyFailsWith22)
{
    expect_checked(check(nullptr), ERROR, 22, "(none)");
}

TEST(ResponseCheck, ReplyWithoutErrnoFailsWithMinus1)
{
    expect_checked(check(R"({"body":[1]})"), ERROR, -1, "[1]");
    expect_checked(check("[]"), ERROR, -1, "(none)");
    expect_checked(check("7"), ERROR, -1, "(none)");
}

TEST(ResponseCheck, ReplyWithoutBodyFollowsErrno)
{
    expect_checked(check(R"({"errno":0})"), OK, 0, "(none)");
    expect_checked(check(R"({"errno":16})"), ERROR, 16, "(none)");
}

TEST(ResponseCheck, OnlyTheLow32BitsOfErrnoCount)
{
    expect_checked(check(R"({"errno":4294967315})"), ERROR, 19, "(none)");
    expect_checked(check(R"({"errno":14614559})"), ERROR, S_zncLib_DAEMON_NOT_RUNNING, "(none)");
}

TEST(ResponseCheck, TargetsMayBeNull)
{
    const znc::CJsonPtr root(cJSON_Parse(R"({"errno":0,"body":[]})"));
    EXPECT_EQ(zncResponseCheck(root.get(), nullptr, nullptr), OK);
    EXPECT_EQ(zncResponseCheck(nullptr, nullptr, nullptr), ERROR);
}

} // namespace
