// Tests of the link between a command in the foreground and the host of its program.
#include "cli/containers/program_link.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>

using namespace zncctl;

namespace {

bool is_readable(const ProgramLink& link)
{
    pollfd wanted = {link.fd(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) == 1;
}

} // namespace

TEST(ProgramLink, MessagesArriveWholeAndInOrder)
{
    const auto ends = ProgramLink::make();
    ASSERT_TRUE(ends[0] && ends[1]);
    EXPECT_FALSE(is_readable(ends[1]));
    EXPECT_FALSE(ends[1].receive(false));
    EXPECT_EQ(errno, EAGAIN);
    ends[0].send(LinkMessage::kSignal, 15);
    ends[0].send(LinkMessage::kOutput, 0, std::string("a\0b", 3));
    ends[1].send(LinkMessage::kEnded, 137);
    EXPECT_TRUE(is_readable(ends[1]));
    const auto signal = ends[1].receive(false);
    const auto output = ends[1].receive(true);
    const auto ended = ends[0].receive(true);
    ASSERT_TRUE(signal && output && ended);
    EXPECT_EQ(signal->kind, LinkMessage::kSignal);
    EXPECT_EQ(signal->value, 15);
    EXPECT_EQ(output->kind, LinkMessage::kOutput);
    EXPECT_EQ(output->data, std::string("a\0b", 3));
    EXPECT_EQ(ended->kind, LinkMessage::kEnded);
    EXPECT_EQ(ended->value, 137);
}

TEST(ProgramLink, LongOutputArrivesInSeveralMessages)
{
    const auto ends = ProgramLink::make();
    const std::string text(1000000, 'x');
    std::thread sender([&] {
        ends[0].send(LinkMessage::kOutput, 0, text);
        ends[0].finish_sending();
    });
    std::string got;
    while (const auto message = ends[1].receive(true))
        got += message->data;
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(got, text);
    sender.join();
}

TEST(ProgramLink, OneEndMayGoOnSendingAfterTheOther)
{
    auto ends = ProgramLink::make();
    ends[0].finish_sending();
    EXPECT_TRUE(is_readable(ends[1]));
    EXPECT_FALSE(ends[1].receive(false));
    EXPECT_EQ(errno, EPIPE);
    ends[1].send(LinkMessage::kTakenOver, 0);
    const auto message = ends[0].receive(true);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->kind, LinkMessage::kTakenOver);
    ends[1].close();
    EXPECT_FALSE(ends[0].receive(true));
    EXPECT_EQ(errno, EPIPE);
    ends[0].send(LinkMessage::kOutput, 0, "lost"); // and raises no signal
}
