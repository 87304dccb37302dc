// Tests of the ownership of queues: queues of other users with our names, and queues whose creator
// has died.
#include "msgq_owner.hpp"

#include "base/owned.hpp"
#include "eventually.hpp"
#include "msgq_line.hpp"
#include "zarnel/msgq.h"
#include "zarnel/task.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr const char* kName = "/znq-owner";
constexpr uid_t kNobody = 65534;

MSG_Q_ID make()
{
    return znMsgQOpen(kName, 1, 64, ZN_MSG_Q_FIFO, ZN_MSG_Q_CREATE_EXCLUSIVE);
}
MSG_Q_ID open_existing()
{
    return znMsgQOpen(kName, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING);
}
struct stat about(int q)
{
    struct stat st = {};
    EXPECT_EQ(::fstat(q, &st), 0);
    return st;
}

// A child process, killed by the destructor at the latest.
class Process {
  public:
    template <class Body> explicit Process(Body body) : pid_(::fork())
    {
        if (pid_ == 0)
            ::_exit(body());
    }
    ~Process() { end(SIGKILL); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    int end(int signo = 0)
    {
        int status = -1;
        if (pid_ <= 0)
            return status;
        if (signo != 0)
            ::kill(pid_, signo);
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t pid_;
};

class QueueOwner : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(::geteuid(), 0U); }
    void TearDown() override { ::mq_unlink(kName); }

    // A queue of another user that all users may open.
    static znc::UniqueFd squat()
    {
        Process squatter([] {
            ::umask(0);
            if (::setuid(kNobody) != 0)
                return 1;
            return ::mq_open(kName, O_RDWR | O_CREAT | O_EXCL, 0666, nullptr) >= 0 ? 0 : 2;
        });
        EXPECT_EQ(squatter.end(), 0);
        return znc::UniqueFd(::mq_open(kName, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
};

TEST_F(QueueOwner, AnotherUsersQueueDoesNotPreventANewOne)
{
    const znc::UniqueFd theirs = squat();
    ASSERT_TRUE(theirs);
    const znc::UniqueFd ours(make());
    ASSERT_TRUE(ours) << strerror(errno);
    EXPECT_EQ(about(ours.get()).st_uid, 0U);
    EXPECT_EQ(about(ours.get()).st_mode & 07777, 0600U);
    EXPECT_NE(about(ours.get()).st_ino, about(theirs.get()).st_ino);
    EXPECT_EQ(about(theirs.get()).st_nlink, 0U);
}

TEST_F(QueueOwner, AnotherUsersQueueIsNotOpened)
{
    const znc::UniqueFd theirs = squat();
    ASSERT_TRUE(theirs);
    EXPECT_LT(open_existing(), 0);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(QueueOwner, AQueueThatOthersCanOpenIsNotOpened)
{
    const znc::UniqueFd open_to_all(make());
    ASSERT_EQ(::fchmod(open_to_all.get(), 0620), 0);
    EXPECT_LT(open_existing(), 0);
    EXPECT_EQ(errno, EACCES);
    ASSERT_EQ(::fchmod(open_to_all.get(), 0600), 0);
    EXPECT_TRUE(znc::UniqueFd(open_existing()));
}

TEST_F(QueueOwner, CreationFailsIfTheSameUserHasTheQueueInUse)
{
    const znc::UniqueFd first(make());
    EXPECT_LT(make(), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(znMsgQDiscard(kName), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(about(first.get()).st_nlink, 1U);
}

TEST_F(QueueOwner, CreationFailsIfAnotherUsersQueueCannotBeRemoved)
{
    const znc::UniqueFd roots(make());
    ASSERT_TRUE(roots);
    Process user([] {
        if (::setuid(kNobody) != 0)
            return 1;
        if (make() >= 0 || errno != EEXIST)
            return 2;
        return znMsgQDiscard(kName) == ERROR && errno == EACCES ? 0 : 3;
    });
    EXPECT_EQ(user.end(), 0);
    EXPECT_EQ(about(roots.get()).st_nlink, 1U);
}

// Another user recreates the queue as fast as it is removed: the queue that we finally create must
// be our own.
TEST_F(QueueOwner, CreationSucceedsAlthoughAnotherUserRecreatesTheQueueInALoop)
{
    Process squatter([] {
        ::umask(0);
        if (::setuid(kNobody) != 0)
            return 1;
        for (;;) {
            const mqd_t q = ::mq_open(kName, O_RDWR | O_CREAT | O_EXCL, 0666, nullptr);
            if (q >= 0)
                ::mq_close(q);
        }
    });
    int made = 0;
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(eventually([] {
            const znc::UniqueFd there(::mq_open(kName, O_RDONLY | O_CLOEXEC));
            return static_cast<bool>(there);
        }));
        const znc::UniqueFd ours(make());
        if (!ours) {
            // the other user won every attempt, and we do not use its queue
            EXPECT_EQ(errno, EEXIST);
            continue;
        }
        made++;
        EXPECT_EQ(about(ours.get()).st_uid, 0U);
        EXPECT_EQ(about(ours.get()).st_mode & 07777, 0600U);
        EXPECT_EQ(znMsgQUnlink(kName), OK);
    }
    EXPECT_GT(made, 0);
}

TEST_F(QueueOwner, AQueueOfADeadProcessCanBeDiscarded)
{
    Process maker([] { return make() >= 0 ? 0 : 1; });
    ASSERT_EQ(maker.end(), 0);
    EXPECT_LT(make(), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(znMsgQDiscard(kName), OK);
    EXPECT_TRUE(znc::UniqueFd(make()));
    EXPECT_EQ(::mq_unlink(kName), 0);
    EXPECT_EQ(znMsgQDiscard(kName), OK) << "there is none";
    EXPECT_EQ(znMsgQDiscard(nullptr), ERROR);
}

// ---------------------------------------------------------------- taking over

TEST_F(QueueOwner, AQueueOfADeadProcessCanBeTakenOverWithItsMessages)
{
    Process maker([] {
        const MSG_Q_ID q = make();
        return znMsgQSend(q, "left", 4, ZN_NO_WAIT, ZN_MSG_PRI_NORMAL) == OK ? 0 : 1;
    });
    ASSERT_EQ(maker.end(), 0);
    EXPECT_FALSE(znMsgQInUse(kName));
    const znc::UniqueFd taken(znMsgQTakeOver(kName, 1, 64));
    ASSERT_TRUE(taken) << strerror(errno);
    EXPECT_TRUE(znMsgQInUse(kName)) << "by the process that took it over";
    char text[8] = {};
    EXPECT_EQ(znMsgQReceive(taken.get(), text, sizeof text, ZN_NO_WAIT), 4);
    EXPECT_STREQ(text, "left");
}

TEST_F(QueueOwner, AQueueInUseCannotBeTakenOver)
{
    const znc::UniqueFd maker(make());
    EXPECT_LT(znMsgQTakeOver(kName, 1, 64), 0);
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(QueueOwner, OnlyAQueueOfThisUserWithTheSameCapacityCanBeTakenOver)
{
    EXPECT_LT(znMsgQTakeOver(kName, 1, 64), 0);
    EXPECT_EQ(errno, ENOENT);
    Process maker([] { return make() >= 0 ? 0 : 1; });
    ASSERT_EQ(maker.end(), 0);
    EXPECT_LT(znMsgQTakeOver(kName, 2, 64), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LT(znMsgQTakeOver(kName, 1, 65), 0);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(::mq_unlink(kName), 0);
    const znc::UniqueFd foreign = squat();
    EXPECT_LT(znMsgQTakeOver(kName, 10, 8192), 0);
    EXPECT_EQ(errno, ENOENT);
}

// ---------------------------------------------------------------- in use

TEST_F(QueueOwner, AQueueIsInUseWhileItsCreatorHasItOpen)
{
    EXPECT_FALSE(znMsgQInUse(kName)) << "there is none";
    {
        const znc::UniqueFd maker(make());
        ASSERT_TRUE(maker);
        errno = EBADF;
        EXPECT_TRUE(znMsgQInUse(kName));
        EXPECT_EQ(errno, EBADF);
        EXPECT_TRUE(znMsgQInUse(kName)) << "looking takes nothing away";
    }
    EXPECT_FALSE(znMsgQInUse(kName)) << "its maker closed it";
    EXPECT_EQ(errno, EBADF);
}

TEST_F(QueueOwner, CheckingForTheCreatorIsNotMistakenForTheCreator)
{
    Process maker([] { return make() >= 0 ? 0 : 1; });
    ASSERT_EQ(maker.end(), 0);
    const znc::UniqueFd looker(::mq_open(kName, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(looker.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_FALSE(znMsgQInUse(kName));
}

TEST_F(QueueOwner, AnotherUsersQueueIsNotInUse)
{
    const znc::UniqueFd foreign = squat();
    ASSERT_TRUE(foreign);
    ASSERT_EQ(::flock(foreign.get(), LOCK_SH | LOCK_NB), 0);
    EXPECT_FALSE(znMsgQInUse(kName));
}

// ---------------------------------------------------------------- sending to nobody

STATUS send_one(MSG_Q_ID q, int timeout = ZN_WAIT_FOREVER)
{
    return znMsgQSend(q, "x", 1, timeout, ZN_MSG_PRI_NORMAL);
}

TEST_F(QueueOwner, SendingToAFullQueueWhoseCreatorDiedFailsWithEPIPE)
{
    Process maker([] { return make() >= 0 ? 0 : 1; });
    ASSERT_EQ(maker.end(), 0);
    const znc::UniqueFd q(open_existing());
    ASSERT_TRUE(q);
    EXPECT_EQ(send_one(q.get()), OK) << "there is room";
    EXPECT_EQ(send_one(q.get()), ERROR);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(send_one(q.get(), ZN_NO_WAIT), ERROR);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(send_one(q.get(), 1), ERROR);
    EXPECT_EQ(errno, ETIMEDOUT);
}

// A thread that sends and waits, and the result.
class Sender {
  public:
    explicit Sender(MSG_Q_ID q)
        : thread_([this, q] {
              result_ = send_one(q);
              error_ = errno;
              done_ = true;
          })
    {
    }
    ~Sender() { thread_.join(); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    [[nodiscard]] bool done() const { return done_; }
    [[nodiscard]] STATUS result() const { return result_; }
    [[nodiscard]] int error() const { return error_; }

  private:
    std::atomic<bool> done_ = false;
    std::atomic<STATUS> result_ = OK;
    std::atomic<int> error_ = 0;
    std::thread thread_;
};

TEST_F(QueueOwner, AWaitingSenderFailsWithEPIPEOnceTheNameIsGone)
{
    const znc::UniqueFd maker(make());
    const znc::UniqueFd q(open_existing());
    ASSERT_EQ(send_one(q.get()), OK);
    const Sender sender(q.get());
    ASSERT_EQ(znMsgQUnlink(kName), OK);
    EXPECT_TRUE(eventually([&] { return sender.done(); }));
    EXPECT_EQ(sender.result(), ERROR);
    EXPECT_EQ(sender.error(), EPIPE);
}

TEST_F(QueueOwner, AWaitingSenderFailsWithEPIPEOnceTheCreatorIsKilled)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Process maker([&] {
        static_cast<void>(::write(ends[1], make() >= 0 ? "y" : "n", 1));
        for (;;)
            ::pause();
        return 0;
    });
    char made = 0;
    ASSERT_EQ(::read(ends[0], &made, 1), 1);
    ASSERT_EQ(made, 'y');
    const znc::UniqueFd q(open_existing());
    ASSERT_EQ(send_one(q.get()), OK);
    const Sender sender(q.get());
    EXPECT_FALSE(zn::queue_is_abandoned(q.get()));
    EXPECT_EQ(maker.end(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return sender.done(); }));
    EXPECT_EQ(sender.error(), EPIPE);
    ::close(ends[0]);
    ::close(ends[1]);
}

// The creator itself may be waiting, with the handle that holds the lock.
TEST_F(QueueOwner, CreatorWaitingOnItsOwnQueueIsNotTakenForAbandoned)
{
    const znc::UniqueFd maker(make());
    ASSERT_EQ(send_one(maker.get()), OK);
    EXPECT_FALSE(zn::queue_is_abandoned(maker.get()));
    const Sender sender(maker.get());
    const znc::UniqueFd other(open_existing());
    for (int i = 0; i < 1000; i++)
        ASSERT_FALSE(zn::queue_is_abandoned(other.get()));
    char byte = 0;
    EXPECT_EQ(znMsgQReceive(maker.get(), &byte, 1, ZN_WAIT_FOREVER), 1);
    EXPECT_TRUE(eventually([&] { return sender.done(); }));
    EXPECT_EQ(sender.result(), OK);
}

TEST_F(QueueOwner, CheckingTheCreatorPreservesErrnoAndLeaksNoDescriptor)
{
    const znc::UniqueFd maker(make());
    const int next = znc::UniqueFd(::open("/", O_PATH | O_CLOEXEC)).get();
    errno = EBADF;
    EXPECT_FALSE(zn::queue_is_abandoned(maker.get()));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(znc::UniqueFd(::open("/", O_PATH | O_CLOEXEC)).get(), next);
}

// ---------------------------------------------------------------- limits

TEST(QueueMemory, RaisingTheLimitsWaitsForMemoryThatIsUsedUpForAMoment)
{
    const pid_t child = ::fork();
    if (child == 0) { // uses a separate user, whose queue memory no other process uses
        struct rlimit limit = {80000, 80000};
        if (::setrlimit(RLIMIT_MSGQUEUE, &limit) != 0 || ::setuid(64999) != 0)
            ::_exit(1);
        const MSG_Q_ID used = znMsgQOpen("/znq-used", 8, 4096, 0, ZN_MSG_Q_CREATE_EXCLUSIVE);
        if (used < 0)
            ::_exit(2);
        std::thread owner([used] {
            eventually(zn::queue_line_is_taken);
            znMsgQClose(used);
            znMsgQUnlink("/znq-used");
        });
        const STATUS raised = znMsgQLimitsRaise(8, 8192);
        owner.join();
        ::_exit(raised == OK ? 0 : 3);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(QueueMemory, LimitThatStaysTooLowFailsWithEMFILE)
{
    const pid_t child = ::fork();
    if (child == 0) {
        struct rlimit limit = {20000, 20000};
        if (::setrlimit(RLIMIT_MSGQUEUE, &limit) != 0 || ::setuid(64999) != 0)
            ::_exit(1);
        ::_exit(znMsgQLimitsRaise(8, 8192) == ERROR && errno == EMFILE ? 0 : 3);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace
