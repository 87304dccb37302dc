// Tests of the credential prompt, with a new terminal for each test.
#include "zncontainer.h"

#include "base/owned.hpp"
#include "eventually.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

// The result of the call, reported by the process that made it.
struct Report {
    STATUS status;
    int err;
    char credential[64];
    char rest[64]; // the next line of standard input
};

class Prompt : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int master;
        int slave;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        master_.reset(master);
        slave_.reset(slave);
    }

    // Makes the call in a process with `in` as standard input; read its output and report
    // afterwards.
    void ask(int in, size_t size, const char* prompt, bool read_rest = false)
    {
        int out[2];
        int report[2];
        ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
        fflush(nullptr);
        child_ = fork();
        if (child_ == 0) {
            dup2(in, STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            Report done = {};
            memset(done.credential, 'X', sizeof done.credential - 1);
            errno = 0;
            done.status = zncUtilCredGetFromStdin(done.credential, size, prompt);
            done.err = errno;
            fflush(stdout);
            if (read_rest && fgets(done.rest, sizeof done.rest, stdin) == nullptr)
                strcpy(done.rest, "nothing");
            _exit(write(report[1], &done, sizeof done) == sizeof done ? 0 : 1);
        }
        out_.reset(out[0]);
        report_.reset(report[0]);
        close(out[1]);
        close(report[1]);
    }

    struct termios settings()
    {
        struct termios found = {};
        EXPECT_EQ(tcgetattr(slave_.get(), &found), 0);
        return found;
    }

    // Types when the prompt has been printed and echo is off.
    void type(const std::string& text)
    {
        ASSERT_TRUE(eventually([this] { return (settings().c_lflag & ECHO) == 0; }));
        ASSERT_EQ(write(master_.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    Report finish()
    {
        Report done = {};
        EXPECT_EQ(read(report_.get(), &done, sizeof done), static_cast<ssize_t>(sizeof done));
        int status = -1;
        EXPECT_EQ(waitpid(child_, &status, 0), child_);
        EXPECT_EQ(status, 0);
        char text[256];
        for (ssize_t got; (got = read(out_.get(), text, sizeof text)) > 0;)
            output_.append(text, static_cast<size_t>(got));
        return done;
    }

    std::string shown_on_terminal()
    {
        struct pollfd fd = {master_.get(), POLLIN, 0};
        char text[256];
        std::string all;
        while (poll(&fd, 1, 0) > 0 && (fd.revents & POLLIN) != 0) {
            const ssize_t got = read(master_.get(), text, sizeof text);
            if (got <= 0)
                break;
            all.append(text, static_cast<size_t>(got));
        }
        return all;
    }

    znc::UniqueFd master_;
    znc::UniqueFd slave_;
    znc::UniqueFd out_;
    znc::UniqueFd report_;
    pid_t child_ = -1;
    std::string output_;
};

TEST_F(Prompt, LineIsReadWithoutItsLineFeedAndNotShown)
{
    ask(slave_.get(), 64, "100%s password: ");
    type("secret\n");
    const Report done = finish();
    EXPECT_EQ(done.status, OK);
    EXPECT_STREQ(done.credential, "secret");
    EXPECT_EQ(output_, "100%s password: \n");
    EXPECT_EQ(shown_on_terminal().find("secret"), std::string::npos);
}

TEST_F(Prompt, EchoStaysOffAfterwardsAndNothingElseChanges)
{
    struct termios before = settings();
    ask(slave_.get(), 64, "");
    type("x\n");
    EXPECT_EQ(finish().status, OK);
    before.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    const struct termios after = settings();
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
}

TEST_F(Prompt, LongLineIsCutAndItsRestStaysUnread)
{
    ask(slave_.get(), 8, "", true);
    type("0123456789\n");
    const Report done = finish();
    EXPECT_EQ(done.status, OK);
    EXPECT_STREQ(done.credential, "0123456");
    EXPECT_STREQ(done.rest, "789\n");
}

TEST_F(Prompt, EmptyLineIsAnEmptyCredential)
{
    ask(slave_.get(), 64, "");
    type("\n");
    const Report done = finish();
    EXPECT_EQ(done.status, OK);
    EXPECT_STREQ(done.credential, "");
}

TEST_F(Prompt, OnlyOneFinalCharacterIsRemovedSoACarriageReturnBeforeALineFeedStays)
{
    struct termios raw = settings();
    raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL);
    ASSERT_EQ(tcsetattr(slave_.get(), TCSANOW, &raw), 0);
    ask(slave_.get(), 64, "");
    type("ab\r\n");
    EXPECT_STREQ(finish().credential, "ab\r");
}

TEST_F(Prompt, CarriageReturnAtTheEndOfTheInputIsRemoved)
{
    struct termios raw = settings();
    raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL);
    ASSERT_EQ(tcsetattr(slave_.get(), TCSANOW, &raw), 0);
    ask(slave_.get(), 4, "", true);
    type("ab\rcd\n");
    const Report done = finish();
    EXPECT_STREQ(done.credential, "ab");
    EXPECT_STREQ(done.rest, "cd\n");
}

TEST_F(Prompt, EndOfInputIsAnErrorWithoutANumber)
{
    ask(slave_.get(), 64, "prompt");
    type("\x04");
    const Report done = finish();
    EXPECT_EQ(done.status, ERROR);
    EXPECT_EQ(done.err, 0);
    EXPECT_EQ(output_, "prompt\n");
}

TEST_F(Prompt, WithoutATerminalThePromptStandsAndENOTTYIsTheReason)
{
    const znc::UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ask(null.get(), 64, "prompt");
    const Report done = finish();
    EXPECT_EQ(done.status, ERROR);
    EXPECT_EQ(done.err, ENOTTY);
    EXPECT_EQ(output_, "prompt");
}

} // namespace
