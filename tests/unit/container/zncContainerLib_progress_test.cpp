#include "zncContainerLib.hpp"

#include "descriptors.hpp"

#include "zarnel/msgq.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class Progress : public ::testing::Test {
  protected:
    void SetUp() override
    {
        zncMsgVerbosity = 2;
        zncMsgQnameSet("/znc-u-7-0");
        open_queue();
    }
    void TearDown() override { close_queue(); }

    void open_queue()
    {
        queue = znMsgQOpen("/znc-u-7-0_info", 20, 255, ZN_MSG_Q_FIFO, ZN_MSG_Q_CREATE_EXCLUSIVE);
        ASSERT_GE(queue, 0);
    }

    void close_queue()
    {
        if (queue >= 0) {
            znMsgQClose(queue);
            znMsgQUnlink("/znc-u-7-0_info");
        }
        queue = ZN_MSG_Q_INVALID;
    }

    // Returns all messages in the queue, each including its NUL.
    std::vector<std::string> received() const
    {
        std::vector<std::string> all;
        char text[256];
        ssize_t n;
        while ((n = znMsgQReceive(queue, text, sizeof text, ZN_NO_WAIT)) >= 0)
            all.emplace_back(text, static_cast<std::size_t>(n));
        return all;
    }

    MSG_Q_ID queue = ZN_MSG_Q_INVALID;
};

std::string with_nul(const std::string& text)
{
    return {text.c_str(), text.size() + 1};
}

void send(uint32_t lvl, const std::string& text)
{
    char format[] = "%s";
    zncSendMsg(lvl, format, text.c_str());
}

TEST_F(Progress, InfoQueueIsNamedAfterTheReplyQueue)
{
    EXPECT_STREQ(infoMsgQ, "/znc-u-7-0_info");
}

TEST_F(Progress, QueueNameIsCutAt191Characters)
{
    zncMsgQnameSet(("/" + std::string(300, 'q')).c_str());
    EXPECT_EQ(std::string(infoMsgQ), "/" + std::string(190, 'q'));
    zncMsgQnameSet(("/" + std::string(187, 'q')).c_str());
    EXPECT_EQ(std::string(infoMsgQ), "/" + std::string(187, 'q') + "_in");
}

TEST_F(Progress, TextIsFormattedAndSentWithItsNul)
{
    char format[] = "%s has %d";
    zncSendMsg(1, format, "web", 3);
    EXPECT_EQ(received(), std::vector<std::string>{with_nul("web has 3")});
}

TEST_F(Progress, LongTextIsCutTo254Characters)
{
    send(1, std::string(254, 'a'));
    send(1, std::string(255, 'b'));
    znc::send_progress("%s", std::string(2000, 'c').c_str());
    EXPECT_EQ(received(), (std::vector<std::string>{with_nul(std::string(254, 'a')),
                                                    with_nul(std::string(254, 'b')),
                                                    with_nul(std::string(254, 'c'))}));
}

TEST_F(Progress, OnlyLevelsUpToTheVerbosityAreSent)
{
    for (UINT8 verbosity = 0; verbosity <= 2; verbosity++) {
        zncMsgLvlSet(verbosity);
        send(0, "zero");
        send(1, "one");
        send(2, "two");
        send(3, "three");
        send(0xffffffffu, "most");
        std::vector<std::string> wanted;
        if (verbosity >= 1)
            wanted.push_back(with_nul("one"));
        if (verbosity >= 2)
            wanted.push_back(with_nul("two"));
        EXPECT_EQ(received(), wanted) << int{verbosity};
    }
}

TEST_F(Progress, TextsOfTheRegistryAreOfLevelOne)
{
    zncMsgLvlSet(1);
    znc::send_progress("%s", "seen");
    zncMsgLvlSet(0);
    znc::send_progress("%s", "silenced");
    EXPECT_EQ(received(), std::vector<std::string>{with_nul("seen")});
}

TEST_F(Progress, VerbosityAboveTwoKeepsThePreviousOne)
{
    for (UINT8 before = 0; before <= 2; before++) {
        zncMsgLvlSet(before);
        zncMsgLvlSet(3);
        EXPECT_EQ(zncMsgVerbosity, before);
        zncMsgLvlSet(255);
        EXPECT_EQ(zncMsgVerbosity, before);
    }
}

TEST_F(Progress, NullTextIsNotSent)
{
    zncSendMsg(1, nullptr);
    EXPECT_TRUE(received().empty());
}

TEST_F(Progress, MissingQueueIsSilentAndIsNotMade)
{
    close_queue();
    errno = 5;
    send(1, "lost");
    EXPECT_EQ(errno, 5);
    EXPECT_LT(znMsgQOpen("/znc-u-7-0_info", 20, 255, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING), 0);
}

TEST_F(Progress, FullQueueDropsTheTextWithoutWaiting)
{
    for (int i = 0; i < 20; i++)
        send(1, std::to_string(i));
    errno = 5;
    send(1, "dropped");
    EXPECT_EQ(errno, 5);
    const std::vector<std::string> all = received();
    ASSERT_EQ(all.size(), 20u);
    EXPECT_EQ(all.front(), with_nul("0"));
    EXPECT_EQ(all.back(), with_nul("19"));
}

TEST_F(Progress, EveryTextClosesTheQueueAgain)
{
    const auto before = open_descriptors();
    for (int i = 0; i < 30; i++) // the last ten do not fit
        send(1, "text");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Progress, TextsGoToTheClientNamedLast)
{
    zncMsgQnameSet("/znc-u-8-0"); // this client no longer has an info queue
    send(1, "lost");
    zncMsgQnameSet("/znc-u-7-0");
    send(1, "kept");
    EXPECT_EQ(received(), std::vector<std::string>{with_nul("kept")});
}

} // namespace
