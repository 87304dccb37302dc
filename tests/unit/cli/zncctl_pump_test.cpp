#include "front/pump.hpp"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using znc::UniqueFd;
using zncctl::Pump;
using zncctl::PumpEnd;

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;

    Pipe()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    // Writes until the pipe is full.
    std::size_t put(const std::string& text) const
    {
        const ssize_t n = write(writer.get(), text.data(), text.size());
        return n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    std::string get() const
    {
        std::string all;
        char buffer[65536];
        for (ssize_t n = 1; n > 0;) {
            n = read(reader.get(), buffer, sizeof buffer);
            all.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
        }
        return all;
    }
};

// Does what the event loop of zncctl does, until nothing is ready.
void turn(Pump& pump)
{
    for (;;) {
        auto wanted = pump.wanted();
        if (poll(wanted.data(), wanted.size(), 0) <= 0)
            return;
        pump.go(wanted[0].revents, wanted[1].revents);
    }
}

class PumpTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }

    Pump pump()
    {
        Pump made(PumpEnd::own(std::move(from_.reader)), PumpEnd::own(std::move(to_.writer)), "x");
        if (GetParam())
            made.move_in_kernel();
        return made;
    }
    Pipe from_;
    Pipe to_;
};

INSTANTIATE_TEST_SUITE_P(Each, PumpTest, testing::Bool(), [](const auto& one) {
    return one.param ? std::string("Moving") : std::string("Copying");
});

TEST_P(PumpTest, PassesBytesAndTheEndOn)
{
    Pump pump = this->pump();
    from_.put("one");
    turn(pump);
    EXPECT_EQ(to_.get(), "one");
    EXPECT_FALSE(pump.done());
    from_.put("two");
    from_.writer.reset();
    turn(pump);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(pump.error(), 0);
    EXPECT_EQ(to_.get(), "two");
    char byte;
    EXPECT_EQ(read(to_.reader.get(), &byte, 1), 0) << "the reader finds the end";
}

TEST_P(PumpTest, TakesNoMoreThanTheReaderLeavesRoomFor)
{
    Pump pump = this->pump();
    std::string sent;
    std::string text(1000, 'x');
    for (int i = 0; i < 10000; i++) {
        text[0] = static_cast<char>('a' + i % 26);
        sent.append(text, 0, from_.put(text));
        turn(pump);
    }
    EXPECT_LT(sent.size(), 1000000U) << "the writer is held up";
    std::string got;
    while (got.size() < sent.size()) {
        const std::string more = to_.get();
        ASSERT_FALSE(more.empty()) << got.size();
        got += more;
        turn(pump);
    }
    EXPECT_EQ(got, sent);
}

TEST_P(PumpTest, ReaderThatClosesEndsItBeforeAnythingIsWritten)
{
    Pump pump = this->pump();
    turn(pump);
    to_.reader.reset();
    turn(pump);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(pump.error(), 0) << "nobody reads: no failure";
    EXPECT_EQ(write(from_.writer.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE) << "the writer is told";
}

TEST_P(PumpTest, FinishPassesOnThatManyBytesAndNoMore)
{
    Pump pump = this->pump();
    from_.put("of the program, of another");
    pump.finish(14);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(to_.get(), "of the program");
}

TEST_P(PumpTest, FinishEndsWhenThereIsLess)
{
    Pump pump = this->pump();
    from_.put("all");
    pump.finish(100); // another reader has consumed the rest
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(to_.get(), "all");
}

TEST_P(PumpTest, FinishWaitsForASlowReader)
{
    const std::string filling(to_.put(std::string(1000000, 'f')), 'f');
    Pump pump = this->pump();
    from_.put("last");
    pump.finish(4);
    EXPECT_FALSE(pump.done());
    turn(pump);
    EXPECT_FALSE(pump.done());
    EXPECT_EQ(to_.get().substr(0, filling.size()), filling);
    turn(pump);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(to_.get(), "last");
}

TEST_P(PumpTest, PausedPumpReadsNothing)
{
    Pump pump = this->pump();
    from_.put("later");
    pump.pause(true);
    turn(pump);
    EXPECT_EQ(to_.get(), "");
    pump.pause(false);
    turn(pump);
    EXPECT_EQ(to_.get(), "later");
}

TEST_P(PumpTest, FullDiskIsAFailure)
{
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    Pump pump(PumpEnd::own(std::move(from_.reader)), PumpEnd::of_caller(full.get()), "output");
    if (GetParam())
        pump.move_in_kernel();
    from_.put("x");
    turn(pump);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(pump.error(), ENOSPC);
    EXPECT_STREQ(pump.name(), "output");
    EXPECT_GE(fcntl(full.get(), F_GETFD), 0) << "the caller's descriptor stays open";
}

TEST(PumpInput, WatcherSeesWhatIsReadAndTheEndIsAText)
{
    Pipe from;
    Pipe to;
    std::string seen;
    Pump pump(PumpEnd::own(std::move(from.reader)), PumpEnd::own(std::move(to.writer)), "x");
    pump.watch([&](std::string_view text) { seen += text; }, "END");
    from.put("keys");
    from.writer.reset();
    turn(pump);
    EXPECT_EQ(seen, "keys");
    EXPECT_EQ(to.get(), "keysEND");
    EXPECT_TRUE(pump.done());
}

TEST(PumpInput, FilterReplacesWhatIsRead)
{
    Pipe from;
    Pipe to;
    std::string seen;
    Pump pump(PumpEnd::own(std::move(from.reader)), PumpEnd::own(std::move(to.writer)), "x");
    pump.filter([](std::string_view text) {
        return text == "none" ? "" : std::string(text) + std::string(100000, '+');
    });
    pump.watch([&](std::string_view text) { seen += text; }, "");
    from.put("none");
    turn(pump);
    from.put("more");
    std::string got;
    for (int i = 0; i < 100 && got.size() < 100004; i++) {
        turn(pump);
        got += to.get();
    }
    EXPECT_EQ(got, "more" + std::string(100000, '+'));
    EXPECT_EQ(seen, got);
}

TEST(PumpInput, DirectoryIsAFailureAndNoInput)
{
    Pipe to;
    const UniqueFd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Pump pump(PumpEnd::of_caller(directory.get()), PumpEnd::own(std::move(to.writer)), "input");
    turn(pump);
    EXPECT_TRUE(pump.done());
    EXPECT_EQ(pump.error(), EISDIR);
}

TEST(PumpInput, CallersDescriptorsKeepTheirFlags)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const UniqueFd one(pair[0]);
    const UniqueFd other(pair[1]);
    for (const int fd : {reader.get(), one.get()}) {
        const int before = fcntl(fd, F_GETFL);
        const PumpEnd end = PumpEnd::of_caller(fd);
        char byte;
        EXPECT_EQ(end.read(&byte, 1), -1);
        EXPECT_EQ(errno, EAGAIN) << "it does not wait";
        EXPECT_EQ(fcntl(fd, F_GETFL), before);
    }
}

} // namespace
