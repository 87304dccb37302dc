#include "zarnel/msgq.h"

#include "platform_only.hpp"

#include "base/owned.hpp"
#include "test_tree.hpp"
#include "zarnel/task.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr const char* kName = "/znq-test";
constexpr size_t kLen = 64;
constexpr const char* kMsgMax = "/proc/sys/fs/mqueue/msg_max";

MSG_Q_ID create(const char* name, size_t msgs = 4, size_t len = kLen)
{
    return znMsgQOpen(name, msgs, len, ZN_MSG_Q_PRIORITY, ZN_MSG_Q_CREATE_EXCLUSIVE);
}

MSG_Q_ID open_existing(const char* name)
{
    return znMsgQOpen(name, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING);
}

// A queue that is removed at the end of the test.
class Queue : public ::testing::Test {
  protected:
    void SetUp() override
    {
        q_ = create(kName);
        ASSERT_GE(q_, 0) << strerror(errno);
    }
    void TearDown() override
    {
        znMsgQClose(q_);
        znMsgQUnlink(kName);
    }

    STATUS send(const std::string& text, int timeout = ZN_NO_WAIT)
    {
        return znMsgQSend(q_, text.data(), text.size(), timeout, ZN_MSG_PRI_NORMAL);
    }

    std::string receive(int timeout = ZN_NO_WAIT, size_t room = kLen)
    {
        std::vector<char> buf(room);
        const ssize_t got = znMsgQReceive(q_, buf.data(), room, timeout);
        return got < 0 ? "error " + std::to_string(errno)
                       : std::string(buf.data(), static_cast<size_t>(got));
    }

    MSG_Q_ID q_ = ZN_MSG_Q_INVALID;
};

std::string error(int err)
{
    return "error " + std::to_string(err);
}

// ---------------------------------------------------------------- opening

TEST_F(Queue, SecondExclusiveCreationFailsWithEEXIST)
{
    errno = 0;
    EXPECT_EQ(create(kName), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EEXIST);
}

TEST(QueueOpen, OpeningAMissingQueueFailsWithENOENT)
{
    errno = 0;
    EXPECT_EQ(open_existing("/znq-none"), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, ENOENT);
}

TEST(QueueOpen, BadNameOrModeFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(create("noslash"), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(znMsgQOpen(kName, 1, 1, 0, 0x10000000), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(create(nullptr), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QueueOpen, ZeroCapacityFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(create(kName, 0), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(create(kName, 1, 0), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QueueOpen, QueueIsTheOwnersOnlyWhateverTheUmaskAndClosedOnExec)
{
    LINUX_ONLY("a queue is no descriptor");
    const test_tree::Umask mask(0777);
    const MSG_Q_ID q = create(kName);
    ASSERT_GE(q, 0);
    struct stat st = {};
    ASSERT_EQ(fstat(q, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_NE(fcntl(q, F_GETFD) & FD_CLOEXEC, 0);
    const MSG_Q_ID again = open_existing(kName);
    ASSERT_GE(again, 0);
    EXPECT_NE(fcntl(again, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(znMsgQClose(again), OK);
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST(QueueOpen, AnotherUsersQueueFailsWithEACCESAlsoForRoot)
{
    ASSERT_EQ(geteuid(), 0u);
    const pid_t child = fork();
    if (child == 0)
        _exit(seteuid(65534) == 0 && create(kName) >= 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    errno = 0;
    EXPECT_EQ(open_existing(kName), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST(QueueOpen, CapacityAboveTheSystemsSettingRaisesIt)
{
    LINUX_ONLY("no setting of the system");
    test_tree::write_file(kMsgMax, "10");
    const MSG_Q_ID q = create(kName, 32, 2048);
    ASSERT_GE(q, 0) << strerror(errno);
    struct mq_attr attr = {};
    ASSERT_EQ(mq_getattr(q, &attr), 0);
    EXPECT_EQ(attr.mq_maxmsg, 32);
    EXPECT_EQ(attr.mq_msgsize, 2048);
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST(QueueOpen, CapacityAboveTheKernelsMaximumFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(create(kName, 1u << 24), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(create(kName, SIZE_MAX), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QueueOpen, WithoutAFreeDescriptorItFailsWithEMFILE)
{
    struct rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit none = old;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    errno = 0;
    const MSG_Q_ID q = create(kName);
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(q, ZN_MSG_Q_INVALID);
    EXPECT_EQ(err, EMFILE);
}

// Simulates exhausted queue memory of this process during its lifetime.
class NoQueueMemory {
  public:
    NoQueueMemory()
    {
        getrlimit(RLIMIT_MSGQUEUE, &old_);
        struct rlimit none = old_;
        none.rlim_cur = 1;
        setrlimit(RLIMIT_MSGQUEUE, &none);
    }
    ~NoQueueMemory() { end(); }
    void end() { setrlimit(RLIMIT_MSGQUEUE, &old_); }

  private:
    struct rlimit old_ = {};
};

TEST(QueueOpen, CreationFailsWithEMFILEWhenQueueMemoryStaysUsedUp)
{
    const NoQueueMemory none;
    errno = 0;
    EXPECT_EQ(create(kName), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, EMFILE);
}

TEST(QueueOpen, CreationWaitsForQueueMemory)
{
    NoQueueMemory none;
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        none.end();
    });
    const MSG_Q_ID q = create(kName);
    EXPECT_GE(q, 0) << strerror(errno);
    other.join();
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
}

TEST(QueueOpen, CreationWaitsForRoomInTheNumberOfQueues)
{
    LINUX_ONLY("no setting of the system");
    constexpr const char* kQueuesMax = "/proc/sys/fs/mqueue/queues_max";
    const std::string before = test_tree::read_file(kQueuesMax);
    test_tree::write_file(kQueuesMax, "1");
    const MSG_Q_ID first = create("/znq-first");
    ASSERT_GE(first, 0) << strerror(errno);
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        znMsgQClose(first);
        znMsgQUnlink("/znq-first");
    });
    const MSG_Q_ID q = create(kName);
    EXPECT_GE(q, 0) << strerror(errno);
    other.join();
    EXPECT_EQ(znMsgQClose(q), OK);
    EXPECT_EQ(znMsgQUnlink(kName), OK);
    test_tree::write_file(kQueuesMax, before);
}

// ---------------------------------------------------------------- messages

TEST_F(Queue, MessagesOfOnePriorityArriveInOrderAndHigherOnesFirst)
{
    ASSERT_EQ(send("one"), OK);
    ASSERT_EQ(send("two"), OK);
    ASSERT_EQ(znMsgQSend(q_, "urgent", 6, ZN_NO_WAIT, 1), OK);
    EXPECT_EQ(receive(), "urgent");
    EXPECT_EQ(receive(), "one");
    EXPECT_EQ(receive(), "two");
}

TEST_F(Queue, EmptyMessageIsDelivered)
{
    ASSERT_EQ(send(""), OK);
    EXPECT_EQ(receive(), "");
    EXPECT_EQ(receive(), error(EAGAIN));
}

TEST_F(Queue, MessageLongerThanTheBufferIsCutAndItsRestLost)
{
    ASSERT_EQ(send("abcdef"), OK);
    ASSERT_EQ(send("xyz"), OK);
    EXPECT_EQ(receive(ZN_NO_WAIT, 4), "abcd");
    EXPECT_EQ(receive(ZN_NO_WAIT, 4), "xyz");
    EXPECT_EQ(receive(ZN_NO_WAIT, 4), error(EAGAIN));
    ASSERT_EQ(send("gone"), OK);
    EXPECT_EQ(znMsgQReceive(q_, nullptr, 0, ZN_NO_WAIT), 0);
    EXPECT_EQ(receive(), error(EAGAIN));
}

TEST_F(Queue, MessageLongerThanTheQueuesFailsWithEMSGSIZE)
{
    EXPECT_EQ(send(std::string(kLen, 'x')), OK);
    errno = 0;
    EXPECT_EQ(send(std::string(kLen + 1, 'x')), ERROR);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(Queue, WithoutWaitingFullAndEmptyFailWithEAGAIN)
{
    EXPECT_EQ(receive(), error(EAGAIN));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(send("x"), OK);
    errno = 0;
    EXPECT_EQ(send("x"), ERROR);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Queue, TimeoutsFailWithETIMEDOUT)
{
    EXPECT_EQ(receive(2), error(ETIMEDOUT));
    EXPECT_EQ(receive(2, 1), error(ETIMEDOUT));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(send("x"), OK);
    errno = 0;
    EXPECT_EQ(send("x", 2), ERROR);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(Queue, WaitingReceiverAndSenderContinueWhenTheOtherSideActs)
{
    std::thread peer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(send("late"), OK);
    });
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), "late");
    peer.join();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(send("full"), OK);
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(receive(), "full");
    });
    EXPECT_EQ(send("fits now", 100 * znSysClkRateGet()), OK);
    reader.join();
}

TEST_F(Queue, InterruptedWaitContinues)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t self = pthread_self();
    std::thread peer([&] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            pthread_kill(self, SIGUSR1);
        }
        EXPECT_EQ(send("after the signals"), OK);
    });
    EXPECT_EQ(receive(100 * znSysClkRateGet()), "after the signals");
    peer.join();
}

TEST(QueueMessages, BadHandleFailsWithEBADF)
{
    char buf[8];
    errno = 0;
    EXPECT_EQ(znMsgQSend(ZN_MSG_Q_INVALID, "x", 1, ZN_WAIT_FOREVER, 0), ERROR);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(znMsgQReceive(ZN_MSG_Q_INVALID, buf, sizeof buf, ZN_WAIT_FOREVER), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(znMsgQClose(ZN_MSG_Q_INVALID), ERROR);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Queue, RemovedNameCannotBeOpenedButOpenHandlesWork)
{
    ASSERT_EQ(znMsgQUnlink(kName), OK);
    errno = 0;
    EXPECT_EQ(open_existing(kName), ZN_MSG_Q_INVALID);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(znMsgQUnlink(kName), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(send("still here"), OK);
    EXPECT_EQ(receive(), "still here");
}

// ---------------------------------------------------------------- the stop request

class StopRequest : public Queue {
  protected:
    void SetUp() override
    {
        Queue::SetUp();
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        read_.reset(fds[0]);
        write_.reset(fds[1]);
        znTaskStopFdSet(read_.get());
    }
    void TearDown() override
    {
        znTaskStopFdSet(-1);
        Queue::TearDown();
    }
    void stop() { ASSERT_EQ(write(write_.get(), "s", 1), 1); }

    znc::UniqueFd read_;
    znc::UniqueFd write_;
};

TEST_F(StopRequest, PrecedesAWaitingMessageAndIsNotConsumed)
{
    ASSERT_EQ(send("waiting"), OK);
    stop();
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), error(ECANCELED));
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), error(ECANCELED));
    struct pollfd fd = {read_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&fd, 1, 0), 1);
    EXPECT_EQ(receive(), "waiting");
}

TEST_F(StopRequest, EndsAWaitForEver)
{
    std::thread peer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stop();
    });
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), error(ECANCELED));
    peer.join();
}

TEST_F(StopRequest, WithoutOneMessagesAreReceived)
{
    ASSERT_EQ(send("first"), OK);
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), "first");
    std::thread peer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(send("second"), OK);
    });
    EXPECT_EQ(receive(ZN_WAIT_FOREVER), "second");
    peer.join();
}

TEST_F(StopRequest, EndsAWaitWithATimeout)
{
    EXPECT_EQ(receive(2), error(ETIMEDOUT));
    stop();
    EXPECT_EQ(receive(1000000), error(ECANCELED));
}

TEST_F(StopRequest, DoesNotAffectReceivesThatDoNotWait)
{
    stop();
    ASSERT_EQ(send("taken"), OK);
    EXPECT_EQ(receive(ZN_NO_WAIT), "taken");
    EXPECT_EQ(receive(ZN_NO_WAIT), error(EAGAIN));
}

// ---------------------------------------------------------------- limits

TEST(QueueLimits, RaisingLetsAQueueOfThatSizeBeMade)
{
    LINUX_ONLY("no setting of the system");
    test_tree::write_file(kMsgMax, "10");
    ASSERT_EQ(znMsgQLimitsRaise(32, 2048), OK) << strerror(errno);
    EXPECT_GE(std::stol(test_tree::read_file(kMsgMax)), 32);
    struct rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_MSGQUEUE, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

TEST(QueueLimits, RaisingNeverLowersTheSetting)
{
    LINUX_ONLY("no setting of the system");
    test_tree::write_file(kMsgMax, "64");
    ASSERT_EQ(znMsgQLimitsRaise(32, 2048), OK);
    EXPECT_EQ(std::stol(test_tree::read_file(kMsgMax)), 64);
}

TEST(QueueLimits, RaisingFailsForAQueueThatCannotBeCreated)
{
    errno = 0;
    EXPECT_EQ(znMsgQLimitsRaise(1u << 24, 1), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(znMsgQLimitsRaise(0, 1), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QueueLimits, TheHintNamesTheSettingThatIsTooLow)
{
    LINUX_ONLY("no setting of the system");
    EXPECT_NE(strstr(znMsgQLimitHint(EINVAL), "fs.mqueue.msg_max"), nullptr);
    EXPECT_NE(strstr(znMsgQLimitHint(EMFILE), "RLIMIT_MSGQUEUE"), nullptr);
    EXPECT_NE(strstr(znMsgQLimitHint(ENOSPC), "fs.mqueue.queues_max"), nullptr);
}

} // namespace
