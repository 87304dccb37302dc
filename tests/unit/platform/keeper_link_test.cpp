// Tests of keepers whose owner has many descriptors: which ones they inherit, and what remains in
// the owner.
#include "keeper_link.hpp"

#include "base/descriptor_message.hpp"
#include "platform/common/clock.hpp"
#include "system/pidfd.hpp"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using zn::Keeper;
using znc::UniqueFd;

constexpr int kMany = 300;
constexpr unsigned long kNamespaces = CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS;

std::set<std::string> descriptors_of(pid_t pid)
{
    std::set<std::string> numbers;
    std::error_code error;
    fs::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error);
    for (; !error && it != fs::directory_iterator(); it.increment(error))
        numbers.insert(it->path().filename());
    EXPECT_FALSE(error) << error.message();
    return numbers;
}

std::size_t own_count()
{
    return descriptors_of(::getpid()).size();
}

class Keepers : public ::testing::Test {
  protected:
    // Some of them have O_CLOEXEC, some do not.
    void SetUp() override
    {
        const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        for (int i = 0; i < kMany; i++)
            many_.emplace_back(
                ::fcntl(null.get(), i % 2 == 0 ? F_DUPFD : F_DUPFD_CLOEXEC, 20 + i % 3));
        ASSERT_TRUE(std::all_of(many_.begin(), many_.end(),
                                [](const UniqueFd& fd) { return static_cast<bool>(fd); }));
    }
    static void end(Keeper& keeper)
    {
        keeper.kill(zn::now_ns() + 10 * zn::kNsPerSec);
        EXPECT_TRUE(keeper.ended(10000));
        EXPECT_TRUE(keeper.reap());
    }

    std::vector<UniqueFd> many_;
};

} // namespace

TEST_F(Keepers, HaveTheirSocketAndNothingOfTheirOwners)
{
    for (int round = 0; round < 3; round++) {
        Keeper keeper;
        ASSERT_TRUE(keeper.start(kNamespaces)) << errno;
        std::uint64_t used = 1;
        // by now the keeper runs its own program
        EXPECT_EQ(keeper.ask(zn::wire::Op::kInUse, 0, &used), 0);
        EXPECT_EQ(used, 0U);
        EXPECT_EQ(descriptors_of(keeper.pid()), std::set<std::string>{"0"});
        end(keeper);
    }
}

TEST_F(Keepers, LeaveTheirOwnersDescriptorsOpen)
{
    Keeper first; // creates what all keepers share
    ASSERT_TRUE(first.start(kNamespaces)) << errno;
    const std::size_t before = own_count();
    {
        Keeper second;
        ASSERT_TRUE(second.start(kNamespaces)) << errno;
        EXPECT_EQ(own_count(), before + 2);
        end(second);
    }
    EXPECT_EQ(own_count(), before);
    struct stat null = {};
    ASSERT_EQ(::stat("/dev/null", &null), 0);
    for (int i = 0; i < kMany; i++) {
        const int fd = many_[static_cast<std::size_t>(i)].get();
        struct stat st = {};
        ASSERT_EQ(::fstat(fd, &st), 0) << fd;
        EXPECT_EQ(st.st_rdev, null.st_rdev) << fd;
        EXPECT_EQ(::fcntl(fd, F_GETFD), i % 2 == 0 ? 0 : FD_CLOEXEC) << fd;
    }
    end(first);
}

TEST_F(Keepers, AreFoundDeadAsSoonAsTheyAreDead)
{
    Keeper one;
    Keeper other;
    ASSERT_TRUE(one.start(kNamespaces)) << errno;
    ASSERT_TRUE(other.start(kNamespaces)) << errno;
    // If another process held its end of the socket, this would block.
    ASSERT_EQ(::kill(one.pid(), SIGKILL), 0);
    ASSERT_TRUE(one.ended(10000));
    EXPECT_EQ(one.ask(zn::wire::Op::kInUse), ESRCH);
    EXPECT_EQ(other.ask(zn::wire::Op::kInUse), 0);
    EXPECT_TRUE(one.reap());
    end(other);
}

namespace {

using zn::wire::Answer;
using zn::wire::Op;
using zn::wire::Request;

// Plays the process at the other end of the socket.
class Posts : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int pair[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        other_.reset(pair[1]);
        keeper_.adopt(0, UniqueFd(), UniqueFd(pair[0]));
    }
    int post(std::uint64_t value)
    {
        Request request = {};
        request.op = Op::kLink;
        request.value = value;
        return keeper_.post(request, {}, -1);
    }
    Request received()
    {
        Request request = {};
        EXPECT_EQ(::recv(other_.get(), &request, sizeof request, MSG_DONTWAIT),
                  static_cast<ssize_t>(sizeof request));
        return request;
    }
    void answer(const Request& request, int error, std::uint64_t value = 0, int descriptor = -1)
    {
        Answer answer = {error, request.serial, value};
        iovec data = {&answer, sizeof answer};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        znc::DescriptorControl control;
        if (descriptor >= 0)
            znc::add_descriptor(message, control, descriptor);
        EXPECT_EQ(::sendmsg(other_.get(), &message, 0), static_cast<ssize_t>(sizeof answer));
    }
    // The next request will have the number after that of `last`.
    static Request after(Request last)
    {
        last.serial++;
        return last;
    }
    Request first_request()
    {
        EXPECT_EQ(post(0), 0);
        return received();
    }

    Keeper keeper_;
    UniqueFd other_;
};

} // namespace

TEST_F(Posts, AreSentAtOnceAndAnsweredTogether)
{
    ASSERT_EQ(post(1), 0);
    ASSERT_EQ(post(2), 0);
    const Request first = received();
    const Request second = received();
    EXPECT_EQ(first.value, 1U);
    EXPECT_EQ(second.value, 2U);
    EXPECT_NE(first.posted, 0U);
    answer(after(second), 0);
    std::size_t failed = 7;
    EXPECT_EQ(keeper_.settle(failed, 1000), 0);
    const Request settle = received();
    EXPECT_EQ(settle.op, Op::kSettle);
    EXPECT_EQ(settle.posted, 0U);
}

TEST_F(Posts, TheOneThatFailedIsNamedByItsPlace)
{
    Request last = {};
    for (std::size_t wrong = 0; wrong < 3; wrong++) {
        std::array<Request, 3> sent = {};
        for (Request& one : sent) {
            ASSERT_EQ(post(1), 0);
            one = received();
        }
        last = after(sent[2]);
        answer(last, ENOENT, sent.at(wrong).serial);
        std::size_t failed = 7;
        EXPECT_EQ(keeper_.settle(failed, 1000), ENOENT);
        EXPECT_EQ(failed, wrong);
        received();
    }
    ASSERT_EQ(post(1), 0);
    received();
    answer(after(after(last)), EIO, last.serial - 5);
    std::size_t failed = 7;
    EXPECT_EQ(keeper_.settle(failed, 1000), EIO);
    EXPECT_EQ(failed, 1U) << "an earlier one";
}

TEST_F(Posts, ALiveProcessIsAskedForOnceUntilItHasEnded)
{
    Request request = after(first_request());
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::pause();
        ::_exit(0);
    }
    const UniqueFd process = zn::process_open(pid);
    ASSERT_TRUE(process);
    answer(request, 0, 1, process.get());
    bool used = false;
    EXPECT_EQ(keeper_.in_use(used), 0);
    EXPECT_TRUE(used);
    EXPECT_EQ(received().op, Op::kInUse);
    used = false;
    EXPECT_EQ(keeper_.in_use(used), 0) << "no answer is there";
    EXPECT_TRUE(used);
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
    request = after(request);
    answer(request, 0, 0);
    EXPECT_EQ(keeper_.in_use(used), 0);
    EXPECT_FALSE(used);
    EXPECT_EQ(received().serial, request.serial);
}

TEST_F(Posts, AnAnswerWithoutADescriptorIsAskedForAgain)
{
    Request request = after(first_request());
    for (int i = 0; i < 2; i++) {
        answer(request, 0, 1);
        bool used = false;
        EXPECT_EQ(keeper_.in_use(used), 0);
        EXPECT_TRUE(used);
        EXPECT_EQ(received().serial, request.serial);
        request = after(request);
    }
    answer(request, EIO, 1);
    bool used = true;
    EXPECT_EQ(keeper_.in_use(used), EIO);
    EXPECT_FALSE(used);
}

TEST_F(Posts, TheProcessIsNotKeptWhereDescriptorsAreScarce)
{
    Request request = after(first_request());
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit low = limit;
    low.rlim_cur = 2;
    const std::size_t before = own_count();
    for (int i = 0; i < 2; i++) {
        const UniqueFd process = zn::process_open(::getpid());
        answer(request, 0, 1, process.get());
        bool used = false;
        if (i == 0)
            low.rlim_cur = static_cast<rlim_t>(process.get()) + 2; // it can be received
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        EXPECT_EQ(keeper_.in_use(used), 0);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_TRUE(used);
        EXPECT_EQ(received().serial, request.serial) << "asked in each round";
        request = after(request);
    }
    EXPECT_EQ(own_count(), before);
}

TEST_F(Posts, AnswersToEarlierOwnersAreNotTakenForTheirs)
{
    answer({}, EIO);
    ASSERT_EQ(post(1), 0);
    answer(after(received()), 0);
    std::size_t failed = 0;
    EXPECT_EQ(keeper_.settle(failed, 1000), 0);
}

TEST_F(Posts, AreFollowedByQuestions)
{
    ASSERT_EQ(post(1), 0);
    // The answer is there before the question, with the number that the question will have.
    const Request expected = after(received());
    answer(expected, 0, 7);
    std::uint64_t value = 0;
    EXPECT_EQ(keeper_.ask(Op::kInUse, 0, &value), 0);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(received().serial, expected.serial);
}

TEST_F(Posts, NeverWaitForRoomInTheSocket)
{
    int error = 0;
    int sent = 0;
    while ((error = post(0)) == 0 && sent < 100000)
        sent++;
    EXPECT_EQ(error, EAGAIN);
    EXPECT_GT(sent, 0);
    received();
    EXPECT_EQ(post(0), 0);
}

TEST_F(Posts, FailWhenTheOtherEndIsClosed)
{
    ASSERT_EQ(post(1), 0);
    other_.reset();
    std::size_t failed = 7;
    EXPECT_EQ(keeper_.settle(failed, 1000), ESRCH);
    EXPECT_EQ(failed, 1U) << "it is not known which";
    EXPECT_EQ(post(2), ESRCH);
}
