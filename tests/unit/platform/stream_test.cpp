#include "zarnel/stream.h"

#include "base/owned.hpp"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using znc::UniqueFd;

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;

    Pipe()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    void put(const std::string& text) const
    {
        EXPECT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string get() const
    {
        char buffer[65536];
        const ssize_t n = read(reader.get(), buffer, sizeof buffer);
        return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : "";
    }
};

UniqueFd temporary_file(int flags)
{
    char name[] = "/tmp/stream_test.XXXXXX";
    const UniqueFd made(mkstemp(name));
    UniqueFd file(open(name, O_RDWR | O_CLOEXEC | flags));
    unlink(name);
    return file;
}

class Stream : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
};

TEST_F(Stream, MovesNoMoreThanAskedForFromPipeToPipe)
{
    const Pipe from;
    const Pipe to;
    from.put("one two");
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 3), 3);
    EXPECT_EQ(to.get(), "one");
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 100), 4);
    EXPECT_EQ(to.get(), " two");
}

TEST_F(Stream, MovesToAFileWhereItsPositionIs)
{
    const Pipe from;
    const UniqueFd file = temporary_file(0);
    EXPECT_EQ(write(file.get(), "a", 1), 1);
    from.put("bc");
    EXPECT_EQ(znStreamMove(from.reader.get(), file.get(), 100), 2);
    char text[4] = {};
    EXPECT_EQ(pread(file.get(), text, sizeof text, 0), 3);
    EXPECT_STREQ(text, "abc");
}

TEST_F(Stream, NeitherAnEmptyPipeNorAFullOneIsWaitedFor)
{
    const Pipe from;
    const Pipe to;
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    fcntl(to.writer.get(), F_SETPIPE_SZ, 4096);
    to.put(std::string(4096, 'x'));
    from.put("y");
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(to.get().size(), 4096U);
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 1), 1);
}

TEST_F(Stream, EndOfThePipeIsZeroAndAMissingReaderIsEPIPE)
{
    Pipe from;
    Pipe to;
    from.put("x");
    to.reader.reset();
    EXPECT_EQ(znStreamMove(from.reader.get(), to.writer.get(), 1), -1);
    EXPECT_EQ(errno, EPIPE);
    const Pipe other;
    EXPECT_EQ(znStreamMove(from.reader.get(), other.writer.get(), 1), 1);
    from.writer.reset();
    EXPECT_EQ(znStreamMove(from.reader.get(), other.writer.get(), 1), 0);
}

TEST_F(Stream, FileThatIsAppendedToIsNotMovedTo)
{
    const Pipe from;
    const UniqueFd file = temporary_file(O_APPEND);
    from.put("x");
    EXPECT_EQ(znStreamMove(from.reader.get(), file.get(), 1), -1);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(from.get(), "x") << "nothing is lost";
}

TEST_F(Stream, ReopenedPipeDoesNotWaitAndTheOtherOneStillDoes)
{
    const Pipe pipe;
    const UniqueFd again(znStreamReopen(pipe.reader.get()));
    ASSERT_TRUE(again);
    char byte;
    EXPECT_EQ(read(again.get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fcntl(pipe.reader.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(again.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(again.get(), F_GETFL) & O_ACCMODE, O_RDONLY) << "the same access";
}

TEST_F(Stream, ReopenedTerminalDoesNotWait)
{
    int master;
    int slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const UniqueFd own(master);
    const UniqueFd user(slave);
    const UniqueFd again(znStreamReopen(slave));
    ASSERT_TRUE(again);
    char byte;
    EXPECT_EQ(read(again.get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fcntl(slave, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Stream, NothingElseIsReopened)
{
    const UniqueFd file = temporary_file(0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const UniqueFd one(pair[0]);
    const UniqueFd two(pair[1]);
    for (const int fd : {file.get(), one.get()}) {
        EXPECT_EQ(znStreamReopen(fd), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(znStreamReopen(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
