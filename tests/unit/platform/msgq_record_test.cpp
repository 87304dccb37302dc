// Tests of the records of queues, by which platform/posix knows who owns a queue.
#include "msgq_record.hpp"

#include "base/owned.hpp"
#include "test_tree.hpp"
#include "zarnel/msgq.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr const char* kName = "/znq-record";

MSG_Q_ID create()
{
    return znMsgQOpen(kName, 1, 8, ZN_MSG_Q_FIFO, ZN_MSG_Q_CREATE_EXCLUSIVE);
}

MSG_Q_ID open_existing()
{
    return znMsgQOpen(kName, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING);
}

// Runs `work` in a child process and waits for its end.
template <class Work> void in_child(Work work)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
}

class MsgqRecord : public testing::Test {
  protected:
    void TearDown() override { ::shm_unlink(kName); }
};

TEST_F(MsgqRecord, IsTheOwnersOnlyWhateverTheUmask)
{
    const test_tree::Umask mask(0777);
    const MSG_Q_ID q = create();
    ASSERT_GE(q, 0);
    const znc::UniqueFd record(::shm_open(kName, O_RDONLY, 0));
    struct stat st = {};
    ASSERT_EQ(::fstat(record.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST_F(MsgqRecord, ThatOthersCanOpenIsRefused)
{
    const MSG_Q_ID q = create();
    ASSERT_GE(q, 0);
    {
        const znc::UniqueFd record(::shm_open(kName, O_RDWR, 0));
        ASSERT_EQ(::fchmod(record.get(), 0620), 0);
    }
    errno = 0;
    EXPECT_EQ(open_existing(), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(znMsgQInUse(kName), FALSE);
    EXPECT_EQ(znMsgQClose(q), OK);
}

TEST_F(MsgqRecord, OfAnotherUserIsReplacedByRoot)
{
    ASSERT_EQ(::geteuid(), 0U);
    in_child([] { return ::seteuid(65534) == 0 && create() >= 0; });
    const MSG_Q_ID q = create();
    EXPECT_GE(q, 0);
    EXPECT_GE(open_existing(), 0);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST_F(MsgqRecord, ThatIsNotFinishedIsNoQueue)
{
    const zn::QueueRecord record = zn::QueueRecord::create(kName);
    ASSERT_TRUE(record);
    EXPECT_STREQ(record.queue(), "");
    errno = 0;
    EXPECT_EQ(open_existing(), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(znMsgQDiscard(kName), ERROR);
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(MsgqRecord, SaysThatTheCreatorHasEnded)
{
    in_child([] { return create() >= 0; });
    EXPECT_EQ(znMsgQInUse(kName), FALSE);
    const MSG_Q_ID q = open_existing();
    ASSERT_GE(q, 0);
    ASSERT_EQ(znMsgQSend(q, "1", 1, ZN_NO_WAIT, ZN_MSG_PRI_NORMAL), OK);
    errno = 0;
    EXPECT_EQ(znMsgQSend(q, "2", 1, ZN_WAIT_FOREVER, ZN_MSG_PRI_NORMAL), ERROR);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(znMsgQDiscard(kName), OK);
    EXPECT_EQ(znMsgQClose(q), OK);
}

TEST_F(MsgqRecord, AChildThatClosesTheQueueDoesNotCountAsItsCreator)
{
    const MSG_Q_ID q = create();
    ASSERT_GE(q, 0);
    in_child([q] { return znMsgQClose(q) == OK; });
    EXPECT_EQ(znMsgQInUse(kName), TRUE);
    errno = 0;
    EXPECT_EQ(znMsgQDiscard(kName), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQInUse(kName), FALSE);
    EXPECT_EQ(znMsgQDiscard(kName), OK);
}

} // namespace
