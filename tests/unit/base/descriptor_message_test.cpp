// Tests of messages of Unix sockets, with and without a descriptor.
#include "base/descriptor_message.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int g_early_ends = 0; // how many of the next calls report the end of the file

} // namespace

extern "C" ssize_t __real_recvmsg(int socket, msghdr* message, int flags);
extern "C" ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags)
{
    if (g_early_ends == 0)
        return __real_recvmsg(socket, message, flags);
    g_early_ends--;
    message->msg_controllen = 0; // as the kernel sets it when there is no message
    return 0;
}

namespace {

using znc::UniqueFd;

class Messages : public testing::Test {
  protected:
    void SetUp() override
    {
        int pair[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        ours_.reset(pair[0]);
        theirs_.reset(pair[1]);
    }
    void TearDown() override { EXPECT_EQ(g_early_ends, 0); }

    void send(char byte, int descriptor = -1)
    {
        iovec data = {&byte, sizeof byte};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        znc::DescriptorControl control;
        if (descriptor >= 0)
            znc::add_descriptor(message, control, descriptor);
        ASSERT_EQ(::sendmsg(theirs_.get(), &message, MSG_NOSIGNAL), 1);
    }
    ssize_t receive()
    {
        return znc::receive_descriptor(ours_.get(), &byte_, 1, MSG_DONTWAIT, got_);
    }

    UniqueFd ours_;
    UniqueFd theirs_;
    UniqueFd got_;
    char byte_ = 0;
};

TEST_F(Messages, ADescriptorArrivesWithItsMessage)
{
    const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    send('a', null.get());
    send('b');
    ASSERT_EQ(receive(), 1);
    EXPECT_EQ(byte_, 'a');
    struct stat sent = {};
    struct stat got = {};
    ASSERT_EQ(::fstat(null.get(), &sent), 0);
    ASSERT_EQ(::fstat(got_.get(), &got), 0);
    EXPECT_EQ(sent.st_rdev, got.st_rdev);
    EXPECT_EQ(::fcntl(got_.get(), F_GETFD), FD_CLOEXEC);
    got_.reset();
    ASSERT_EQ(receive(), 1);
    EXPECT_EQ(byte_, 'b');
    EXPECT_FALSE(got_);
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Messages, TheEndOfTheFileIsReported)
{
    send('a');
    theirs_.reset();
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(receive(), 0);
}

TEST_F(Messages, AnEndThatIsReportedBeforeTheLastMessageLosesNothing)
{
    const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    send('a', null.get());
    theirs_.reset();
    g_early_ends = 1;
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(byte_, 'a');
    EXPECT_TRUE(got_);
    EXPECT_EQ(receive(), 0);
}

} // namespace
