// Tests of how the credential prompt changes the terminal's option word, with a fake terminal.
#include "zarnel/terminal.h"
#include "zncontainer.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Terminal {
    int word = 0;
    std::vector<int> set; // all words that were set, in order
    size_t fails_at = 0;  // 1: getting, 2: the first setting, 3: the second
    size_t calls = 0;
};
Terminal terminal;

STATUS answer()
{
    if (++terminal.calls != terminal.fails_at)
        return OK;
    errno = EIO;
    return ERROR;
}

// A line on standard input.
void feed(const char* text)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], text, strlen(text)), static_cast<ssize_t>(strlen(text)));
    close(fds[1]);
    dup2(fds[0], STDIN_FILENO);
    close(fds[0]);
    clearerr(stdin);
}

STATUS ask(char* credential, size_t size)
{
    testing::internal::CaptureStdout();
    errno = 0;
    const STATUS status = zncUtilCredGetFromStdin(credential, size, "p");
    const int err = errno;
    fflush(stdout);
    testing::internal::GetCapturedStdout();
    errno = err;
    return status;
}

} // namespace

STATUS znTermOptionsGet(int fd, int* options)
{
    EXPECT_EQ(fd, STDIN_FILENO);
    *options = terminal.word;
    return answer();
}

STATUS znTermOptionsSet(int fd, int options)
{
    EXPECT_EQ(fd, STDIN_FILENO);
    terminal.set.push_back(options);
    return answer();
}

namespace {

TEST(PromptOptions, OnlyTheEchoBitIsClearedAndTheClearedWordIsSetAgainAtTheEnd)
{
    terminal = {};
    terminal.word = 0x7f;
    feed("secret\n");
    char credential[16];
    EXPECT_EQ(ask(credential, sizeof credential), OK);
    EXPECT_STREQ(credential, "secret");
    EXPECT_EQ(terminal.set, (std::vector<int>{0x7e, 0x7e}));
}

TEST(PromptOptions, OptionsThatCannotBeReadAreAnErrorAndNothingIsSet)
{
    terminal = {};
    terminal.fails_at = 1;
    char credential[16] = "kept";
    EXPECT_EQ(ask(credential, sizeof credential), ERROR);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(terminal.set.empty());
    EXPECT_STREQ(credential, "kept");
}

TEST(PromptOptions, EchoThatCannotBeSwitchedOffIsAnErrorAndNothingIsRead)
{
    terminal = {};
    terminal.fails_at = 2;
    feed("secret\n");
    char credential[16] = "kept";
    EXPECT_EQ(ask(credential, sizeof credential), ERROR);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(terminal.set.size(), 1u);
    EXPECT_STREQ(credential, "kept");
}

TEST(PromptOptions, FailureOfTheLastSettingIsNotExamined)
{
    terminal = {};
    terminal.fails_at = 3;
    feed("secret\n");
    char credential[16];
    EXPECT_EQ(ask(credential, sizeof credential), OK);
    EXPECT_STREQ(credential, "secret");
}

} // namespace
